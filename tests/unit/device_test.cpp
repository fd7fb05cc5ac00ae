// Opening registered devices, counting mounts, the unmount chain, exclusive mode with HAL locks.
#include <errno.h>
#include <gtest/gtest.h>

#include <thread>

#include "aspi/srb.h"
#include "device/open.h"
#include "device/registry_internal.h"
#include "device/unmount_internal.h"
#include "discovery/hal.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using Lines = std::vector<std::string>;

// Open flags follow the node, a generic node gets its reserved size and timeout, only busy nodes are retried.
TEST(OpenTest, FlagsAndPreparationFollowTheNode) {
  fixture::FixtureWorld world;
  world.AddFile("/etc/mtab", "");
  fixture::BuildRegistry(world, "drives");  // /dev/sg0 at adapter 1, its block node /dev/scd0
  for (const char* node : {"/dev/sg0", "/dev/scd0", "/dev/hdc"}) world.Node(node)->TakeLog();
  for (const auto& row : fixture::Rows("rows/open_flags")) {
    SCSI_GetDeviceProperties(1, 0, 0, 0)->DevicePath = row[0].c_str();
    int block = 0, refusals = static_cast<int>(fixture::Number(row[5]));
    world.Node(row[0])->onOpen = [&] { return refusals-- != 0 ? static_cast<int>(fixture::Number(row[4])) : 0; };
    const unsigned long long slept = world.slept;
    kavo::os::Close(SCSI_OpenDevice(1, 0, 0, 0, static_cast<int>(fixture::Number(row[1])), &block));
    kavo::os::Close(block);
    world.Node(row[0])->onOpen = nullptr;
    EXPECT_EQ(row[2], world.Node(row[0])->TakeLog()) << row[0] << " " << row[1];
    EXPECT_EQ(row[3], world.Node("/dev/scd0")->TakeLog()) << row[0] << " " << row[1];
    EXPECT_EQ(fixture::Number(row[6]), static_cast<long long>(world.slept - slept)) << row[0] << " " << row[5];
  }
}

TEST(Mounts, CountPrefixMatchesOfTheDeviceFieldOrItsLinkTargetText) {
  fixture::FixtureWorld world;
  world.Load("cdrom_links");
  for (const auto& row : fixture::Rows("rows/mounts")) {
    if (row[0] != "-") world.AddFile("/etc/mtab", std::string(fixture::Number(row[0]), 'x') + "/dev/sr0 /m x\n");
    EXPECT_EQ(fixture::Number(row[1]), SCSI_CountMounts(row[2].c_str())) << row[2];
  }
}

// umount runs once per mount, each later tool only while mounted; without a table each runs once, in order.
TEST(Mounts, UnmountChainStopsWhenNothingIsLeftMounted) {
  fixture::FixtureWorld tools;
  tools.Load("unmount_chain");
  const Lines chain = tools.expected;  // each tool's command, in order
  for (const auto& row : fixture::Rows("rows/unmount_chain")) {
    fixture::FixtureWorld world;
    int mounts = row[0] == "none" ? -1 : static_cast<int>(fixture::Number(row[0]));
    Lines commands;
    auto table = [&] { world.AddFile("/etc/mtab", mounts == 2 ? "/dev/sr0 a\n/dev/sr0 b\n" : mounts ? "/dev/sr0 a\n" : ""); };
    if (mounts >= 0) table();
    world.shellHook = [&](const std::string& command) {
      commands.push_back(command);
      if (mounts > 0 && command.compare(0, row[1].size() + 1, row[1] + " ") == 0) --mounts, table();
      return 1;
    };
    SCSI_UnmountVolumes("/dev/sr0");
    Lines expected;
    for (size_t at = 0; at < row[2].size(); at += 2)
      if (row[2][at] != '-') expected.push_back(chain.at(row[2][at] - '0'));
    EXPECT_EQ(expected, commands) << row[0] << " " << row[1];
  }
}

// Each held node with its count, the descriptors open, and what /dev/sg0 saw since.
std::string Holds(const fixture::FixtureWorld& world) {
  CPosixSingleLock hold(&OpenedDevicesMapLock, 1);
  std::string text;
  for (const auto& entry : OpenedDevicesMap)
    text += std::string(entry.first.GetString()) + "x" + std::to_string(entry.second->nRefCount) +
            (entry.second->bHalLocked ? " locked " : " ");
  return text + std::to_string(world.OpenDescriptorCount()) + " " + world.Node("/dev/sg0")->TakeLog();
}

// The holds of its rows, none unmounting twice; HAL's calls from many threads come one at a time.
TEST(ExclusiveTest, NestedHoldsShareAndHalLocksWhatItCan) {
  fixture::FixtureWorld world;
  world.AddFile("/etc/mtab", "");
  fixture::BuildRegistry(world, "drives");
  fixture::FakeHal& hal = fixture::InstallFakeHal(world);
  ASSERT_TRUE(libhal_support_init() && libhal_support_init()) << "a second start finds HAL running";
  SCSI_GetDeviceProperties(1, 0, 0, 0)->HalUdi = "/org/freedesktop/Hal/devices/storage_serial_DVD0";
  int shellCommands = 0;
  world.shellHook = [&shellCommands](const std::string&) { return ++shellCommands, 0; };
  int at = 0;
  for (const auto& row : fixture::Rows("rows/exclusive")) {
    const int adapter = static_cast<int>(fixture::Number(row[0]));
    hal.failing = row[3];
    const int result = row[1] == "1" ? ASPI_setExclusiveMode(adapter, 0) : ASPI_unsetExclusiveMode(adapter, 0);
    EXPECT_EQ(fixture::Number(row[2]), result);
    EXPECT_EQ(row[4], Holds(world));
    std::string sent;
    for (const std::string& call : hal.calls) sent += call.find("ock /") < 4 ? std::string(1, call[0]) : "";
    EXPECT_EQ(row[5], sent) << "row " << at;
    if (at == 0) world.Remove("/etc/mtab");  // a second unmount at the nested set would show
    if (at++ == 1) world.AddFile("/etc/mtab", "");
  }
  EXPECT_EQ(0, shellCommands);
  world.Node("/dev/sg0")->onOpen = [] { return EBUSY; };
  EXPECT_EQ(-1, ASPI_setExclusiveMode(1, 0));
  EXPECT_EQ("0 ", Holds(world)) << "a failed open stores nothing";
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] { for (int i = 0; i < 5; ++i) libhal_support_lock_device("/udi"); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(libhal_support_done());
  EXPECT_TRUE(hal.mostAtOnce == 1 && hal.outstanding == 0) << hal.mostAtOnce << " " << hal.outstanding;
  unsigned int count = 9;  // HAL gone: no drives, a count of 0, no lock
  EXPECT_TRUE(!libhal_support_get_all_cdrom_devices(&count) && count == 0 && !libhal_support_lock_device("/udi"));
}

}  // namespace
