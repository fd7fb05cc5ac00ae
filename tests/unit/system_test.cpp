#include "runtime/system.h"

#include <gtest/gtest.h>
#include <math.h>

#include <utility>

#include "tests/fixture/world.h"

namespace {

class SystemInfo : public ::testing::Test {
 protected:
  SystemInfo() : scope_(world_) { world_.AddFile("/proc/sys/kernel/ostype", "Linux\n"); }

  std::string OSName() { return CPortableSystem::GetOSName().GetString(); }
  std::string OSVersion() { return CPortableSystem::GetOSVersion().GetString(); }
  std::pair<unsigned int, unsigned int> VersionNumbers() {
    unsigned int major = 99, minor = 99;
    CPortableSystem::GetOSVersion(major, minor);
    return {major, minor};
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
};

// Each row is a whole /etc world: lsb-release (trimmed values, exact keys
// at line start, lines read 1023 characters at a time), else the first
// release file that opens, else the kernel type alone.
TEST_F(SystemInfo, NameComesFromLsbReleaseOrTheFirstReleaseFile) {
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
    EXPECT_EQ(row.name, OSName());
  }
  world_.Remove("/proc/sys/kernel/ostype");
  EXPECT_EQ("Linux", OSName());
}

// Release and machine from uname, else the release from /proc; the numbers
// are the release's first two fields, a missing minor repeating the major.
TEST_F(SystemInfo, VersionIsKernelReleaseAndMachine) {
  const struct {
    const char *release, *machine, *version;
    std::pair<unsigned int, unsigned int> numbers;
  } rows[] = {{"2.6.17-10-generic", "i686", "2.6.17-10-generic (i686)", {2, 6}},
              {"7", "", "7", {7, 7}},
              {"5.", "x86_64", "5. (x86_64)", {5, 0}},
              {nullptr, nullptr, "unknown", {0, 0}},
              {nullptr, "3.10.0-rc1\n", "3.10.0-rc1", {3, 10}}};  // machine: /proc's osrelease
  for (const auto& row : rows) {
    if (row.release) world_.SetUname(row.release, row.machine);
    else world_.FailUname();
    if (!row.release && row.machine) world_.AddFile("/proc/sys/kernel/osrelease", row.machine);
    EXPECT_EQ(row.version, OSVersion());
    EXPECT_EQ(row.numbers, VersionNumbers()) << row.version;
  }
}

TEST_F(SystemInfo, MemoryInKiBLoadInPercentAndPausesInWholeSecondsFirst) {
  world_.SetMemory(8388608, 2097152);  // 8 GiB in bytes needs the 64-bit product
  EXPECT_EQ(8388608u, CPortableSystem::GetTotalPhysicalMemory());
  EXPECT_EQ(2097152u, CPortableSystem::GetFreePhysicalMemory());
  EXPECT_DOUBLE_EQ(75.0, CPortableSystem::GetMemoryLoad());
  world_.FailSysInfo();
  EXPECT_EQ(0u, CPortableSystem::GetTotalPhysicalMemory());
  EXPECT_TRUE(isnan(CPortableSystem::GetMemoryLoad()));
  for (int milliseconds : {2500, 0, -5}) CPortableSystem::PauseExecution(milliseconds);
  EXPECT_EQ(2500000u, world_.SleptMicroseconds());
  EXPECT_EQ(2u, world_.SleepCalls());
}

}  // namespace
