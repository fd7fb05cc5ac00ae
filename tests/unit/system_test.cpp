#include "runtime/system.h"

#include <gtest/gtest.h>

#include "tests/fixture/world.h"

namespace {

// Each machine is a whole /etc world with the name it should give:
// lsb-release, else the first release file that opens, else the kernel type.
TEST(SystemInfo, NameComesFromLsbReleaseOrTheFirstReleaseFile) {
  for (const char* name : {"os/lsb", "os/lsb_keys", "os/lsb_long_line", "os/lsb_long_line_cut", "os/lsb_without_release",
                           "os/redhat_before_suse", "os/fedora_before_redhat", "os/empty_release_file",
                           "os/empty_kernel_type", "os/kernel_type_alone"}) {
    fixture::FixtureWorld world;
    fixture::FixtureWorld::Scope scope(world);
    world.Load(name);
    EXPECT_EQ(world.Expected(), std::vector<std::string>{CPortableSystem::GetOSName().GetString()}) << name;
  }
}

}  // namespace
