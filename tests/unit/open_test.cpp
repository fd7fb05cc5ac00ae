// Opening registered devices: busy retries, counting mounts and the
// unmount chain (its order and commands).
#include "device/open.h"

#include <errno.h>
#include <string.h>

#include "device/unmount_internal.h"
#include "gtest/gtest.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using Lines = std::vector<std::string>;
TEST(OpenTest, OnlyBusyNodesAreRetriedTenTimesAHundredMicrosecondsApart) {
  fixture::FixtureWorld world;
  fixture::BuildRegistry(world, "drives");  // /dev/sg0 at adapter 1
  const struct {
    int error, times;
    unsigned long long slept;  // 100 us after each failed attempt but the last
  } rows[] = {{EBUSY, 3, 300}, {EBUSY, -1, 1000}, {ENOENT, -1, 0}};
  for (const auto& row : rows) {
    const unsigned long long sleptBefore = world.slept;
    int refusals = row.times;
    world.Node("/dev/sg0")->onOpen = [&] { return refusals-- != 0 ? row.error : 0; };
    const int fd = SCSI_OpenDevice(1, 0, 0, 0, 0, nullptr);
    EXPECT_EQ(row.times > 0, fd != -1);
    kavo::os::Close(fd);
    EXPECT_EQ(row.slept, world.slept - sleptBefore);
  }
}

TEST(Mounts, CountPrefixMatchesOfTheDeviceFieldOrItsLinkTargetText) {
  fixture::FixtureWorld world;
  world.Load("cdrom_links");
  const std::string table = "/dev/sr0 /a iso9660 ro 0 0\n/dev/sr10 /b udf ro\n/dev/cdrom /c x\n/dev/dvd /d x\n/dev/sr2\n";
  const struct {
    std::string mtab;
    const char* path;
    int count;
  } rows[] = {
      {table, "/dev/sr0", 2},  // its own line and /dev/dvd's target
      {table, "/dev/sr1", 1},  // /dev/sr10
      {table, "sr0", 1},       // the relative target text, not resolved
      {table, "/dev/cdrom", 0},
      {table, "/dev/sr2", 1},  // a line without a blank is its own field
      {table, "/dev/sr", 4},
      {std::string(8190, 'x') + "/dev/sr0 /m x\n", "/dev/sr0", 1},  // long lines arrive in pieces of 8190
      {std::string(8189, 'x') + "/dev/sr0 /m x\n", "/dev/sr0", 0},
  };
  for (const auto& row : rows) {
    world.AddFile("/etc/mtab", row.mtab);
    EXPECT_EQ(row.count, SCSI_CountMounts(row.path)) << row.path;
  }
}

// umount runs once per mount; each later tool runs only while the drive
// still counts as mounted; without a table every tool runs once, in order.
TEST(Mounts, UnmountChainStopsWhenNothingIsLeftMounted) {
  fixture::FixtureWorld tools;
  tools.Load("unmount_chain");
  const Lines chain = tools.expected;  // each tool's command, in order
  const struct {
    int mounts;            // -1: no table
    const char* unmounts;  // the tool that takes a mount away
    std::vector<int> commands;
  } rows[] = {{0, "umount ", {}},
              {2, "umount ", {0, 0}},
              {1, "pumount ", {0, 1}},
              {1, "gnome-mount ", {0, 1, 2, 3}},
              {-1, "none", {0, 1, 2, 3, 4}}};
  for (const auto& row : rows) {
    fixture::FixtureWorld world;
    int mounts = row.mounts;
    Lines commands;
    auto table = [&] { world.AddFile("/etc/mtab", mounts == 2 ? "/dev/sr0 a\n/dev/sr0 b\n" : mounts ? "/dev/sr0 a\n" : ""); };
    if (mounts >= 0) table();
    world.shellHook = [&](const std::string& command) {
      commands.push_back(command);
      if (mounts > 0 && command.compare(0, strlen(row.unmounts), row.unmounts) == 0) --mounts, table();
      return 1;
    };
    SCSI_UnmountVolumes("/dev/sr0");
    Lines expected;
    for (int command : row.commands) expected.push_back(chain.at(command));
    EXPECT_EQ(expected, commands) << row.mounts << " " << row.unmounts;
  }
}

}  // namespace
