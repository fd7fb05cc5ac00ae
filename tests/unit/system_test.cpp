#include "runtime/system.h"

#include <gtest/gtest.h>

#include "tests/fixture/world.h"

namespace {

// Each row is a whole /etc world: lsb-release (trimmed values, exact keys
// at line start, lines read 1023 characters at a time), else the first
// release file that opens, else the kernel type alone.
TEST(SystemInfo, NameComesFromLsbReleaseOrTheFirstReleaseFile) {
  std::string padded = "DISTRIB_ID=Ubuntu";
  padded.resize(1023, ' ');
  struct Row {
    std::vector<std::pair<const char*, std::string>> files;
    const char* name;
  } rows[] = {
      {{{"/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=6.06\nDISTRIB_CODENAME=dapper\n"}},
       "Linux (Ubuntu 6.06 'dapper')"},
      {{{"/etc/lsb-release",
         "DISTRIB_ID=Debian\nDISTRIB_ID=  Ubuntu \t\r\ndistrib_release=1\n DISTRIB_RELEASE=2\n"
         "DISTRIB_RELEASE= 8.04\nDISTRIB_CODENAME=\n"}},
       "Linux (Ubuntu 8.04)"},
      {{{"/etc/lsb-release", padded + "DISTRIB_RELEASE=9\n"}}, "Linux (Ubuntu 9)"},
      {{{"/etc/lsb-release", padded.substr(0, 1022) + "DISTRIB_RELEASE=9\n"}}, "Linux"},
      {{{"/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_CODENAME=dapper\n"}, {"/etc/debian_version", "3.1\n"}},
       "Linux (Debian GNU/Linux 3.1)"},
      {{{"/etc/redhat-release", "Red Hat Enterprise Linux\n"}, {"/etc/SuSE-release", "SUSE Linux 10.1\n"}},
       "Linux (Red Hat Enterprise Linux)"},
      {{{"/etc/fedora-release", "Fedora Core release 5 (Bordeaux)\n"}, {"/etc/redhat-release", "RHEL\n"}},
       "Linux (Fedora Core release 5 (Bordeaux))"},
      {{{"/etc/fedora-release", ""}, {"/etc/redhat-release", "RHEL\n"}}, "Linux"},  // empty still decides
      {{{"/proc/sys/kernel/ostype", ""}, {"/etc/debian_version", ""}}, "Linux (Debian GNU/Linux)"},
      {{{"/proc/sys/kernel/ostype", "Hurd\nsecond line\n"}}, "Hurd"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    fixture::FixtureWorld world;
    fixture::FixtureWorld::Scope scope(world);
    world.AddFile("/proc/sys/kernel/ostype", "Linux\n");
    for (const auto& file : row.files) world.AddFile(file.first, file.second);
    EXPECT_EQ(row.name, std::string(CPortableSystem::GetOSName().GetString()));
  }
}

}  // namespace
