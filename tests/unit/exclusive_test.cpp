// Exclusive mode: holds and their nesting, HAL locks, and sets racing
// rescans.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "aspi/srb.h"
#include "device/open.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
#include "tests/doubles/hal_double_control.h"
#include "tests/fixture/machines.h"
#include "tests/unit/watchdog.h"

namespace {

using Lines = std::vector<std::string>;
const char kUdi[] = "/org/freedesktop/Hal/devices/storage_serial_DVD0";
const std::string kLock = std::string("Lock ") + kUdi, kUnlock = std::string("Unlock ") + kUdi;

// A drive's entry in OpenedDevicesMap, or {-2, 0, false} when it has none.
SCSI_RefCountedFileDesc EntryOf(const char* path) {
  CPosixSingleLock hold(&OpenedDevicesMapLock, 1);
  SCSI_OpenedDevicesMap::const_iterator found = OpenedDevicesMap.find(CBasicString<char>(path));
  if (found == OpenedDevicesMap.end()) return SCSI_RefCountedFileDesc{-2, 0, false};
  return *found->second;
}

size_t HeldEntries() {
  CPosixSingleLock hold(&OpenedDevicesMapLock, 1);
  return OpenedDevicesMap.size();
}

Lines SentMethods(HalDouble& hal) {
  Lines methods;
  for (const HalDoubleMethodCall& call : hal.Sent()) methods.push_back(std::string(call.method) + " " + call.path);
  return methods;
}

// A generic drive at adapter 0, target 0 (/dev/sg0, block node /dev/sr0)
// and an IDE drive at adapter 1, target 0 (/dev/hdc).
class ExclusiveTest : public ::testing::Test {
 protected:
  ExclusiveTest() : scope_(world_) {
    world_.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n");
    fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 0, 0);
    world_.AddNode("/dev/sr0", std::make_shared<fixture::AddressedNode>(0, 0, 0, 0));
    fixture::PlaceIdeDrive(world_, "/dev/hdc");
    fixture::RegisterTestDevice(0, 0, 0, 0, "/dev/sg0", "/dev/sr0");
    fixture::RegisterTestDevice(1, 0, 0, 0, "/dev/hdc");
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
};

// The first set opens the drive exclusively and its block node, runs no
// command for an unmounted drive; a nested set shares both; the block entry
// goes at the first unset and the drive's at the last.
TEST_F(ExclusiveTest, NestedHoldsShareOneDescriptorAndGiveTheBlockNodeBackFirst) {
  ASSERT_EQ(0, ASPI_setExclusiveMode(0, 0));
  EXPECT_TRUE(world_.ShellCommands().empty());
  ASSERT_EQ(2u, world_.Opens().size());
  EXPECT_EQ("/dev/sg0", world_.Opens()[0].path);
  EXPECT_EQ(O_RDWR | O_NONBLOCK | O_EXCL, world_.Opens()[0].flags);
  EXPECT_EQ("/dev/sr0", world_.Opens()[1].path);
  const int fd = EntryOf("/dev/sg0").nFileDesc;
  EXPECT_GE(fd, 0);
  EXPECT_FALSE(EntryOf("/dev/sg0").bHalLocked);
  EXPECT_EQ(fd, SCSI_GetDeviceFileDesc(0, 0, 0, 0));
  world_.Remove("/etc/mtab");  // a nested set would now run the whole chain
  ASSERT_EQ(0, ASPI_setExclusiveMode(0, 0));
  EXPECT_EQ(2u, world_.Opens().size()) << "no second open";
  EXPECT_TRUE(world_.ShellCommands().empty()) << "no second unmount";
  EXPECT_EQ(2, EntryOf("/dev/sg0").nRefCount);
  EXPECT_EQ(1, EntryOf("/dev/sr0").nRefCount);
  EXPECT_EQ(-1, ASPI_setExclusiveMode(5, 5));
  EXPECT_EQ(-1, ASPI_unsetExclusiveMode(5, 5));
  EXPECT_EQ(-1, ASPI_unsetExclusiveMode(1, 0)) << "registered but never held";
  EXPECT_EQ(2, world_.OpenDescriptorCount());
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
  EXPECT_EQ(1, EntryOf("/dev/sg0").nRefCount);
  EXPECT_EQ(-2, EntryOf("/dev/sr0").nFileDesc) << "block entry gone at the first unset";
  EXPECT_EQ(1, world_.OpenDescriptorCount());
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
  EXPECT_EQ(0u, HeldEntries());
  EXPECT_EQ(0, world_.OpenDescriptorCount());
  EXPECT_EQ(-1, SCSI_GetDeviceFileDesc(0, 0, 0, 0));
  EXPECT_EQ(-1, ASPI_unsetExclusiveMode(0, 0));
  world_.FailOpen("/dev/sg0", EBUSY);
  EXPECT_EQ(-1, ASPI_setExclusiveMode(0, 0));
  EXPECT_EQ(0u, HeldEntries()) << "a failed open stores nothing";
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

// HAL locks a drive with a UDI once, at the first set, and unlocks it at the
// last unset; a refused lock is not unlocked; drives without UDI make no call.
TEST_F(ExclusiveTest, HalLocksOnlyWhatItCanAndUnlocksAtTheLastUnset) {
  HalDouble hal;
  ASSERT_TRUE(hal.Loaded());
  hal.Reset();
  hal.MapInto(world_);
  ASSERT_TRUE(libhal_support_init());
  {
    DevicesMapHold hold;
    SCSI_GetDeviceProperties(0, 0, 0, 0)->HalUdi = kUdi;
  }
  ASSERT_EQ(0, ASPI_setExclusiveMode(0, 0));
  ASSERT_EQ(0, ASPI_setExclusiveMode(0, 0));
  EXPECT_TRUE(EntryOf("/dev/sg0").bHalLocked);
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
  EXPECT_EQ(Lines{kLock}, SentMethods(hal));
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
  EXPECT_EQ((Lines{kLock, kUnlock}), SentMethods(hal));
  ASSERT_EQ(0, ASPI_setExclusiveMode(1, 0));
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(1, 0));
  hal.Fail(HAL_DOUBLE_METHOD_CALL);
  ASSERT_EQ(0, ASPI_setExclusiveMode(0, 0));
  EXPECT_FALSE(EntryOf("/dev/sg0").bHalLocked);
  hal.Fail(HAL_DOUBLE_METHOD_CALL, false);
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
  EXPECT_EQ((Lines{kLock, kUnlock, kLock}), SentMethods(hal));
  EXPECT_TRUE(libhal_support_done());
}

// While RescanLock is taken (as by a rescan's rebuild), a set must wait for
// it without holding either map lock: a thread that held a map lock while
// waiting for RescanLock is what could close a cycle with the rebuild.
TEST_F(ExclusiveTest, SetWaitingForARescanHoldsNoMapLock) {
  RescanLock.Lock(0xFFFFFFFF);
  std::atomic<int> result(1);
  std::thread setter([&result] { result = ASPI_setExclusiveMode(0, 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(1, result.load()) << "the set must still be waiting";
  const int devicesMapFree = DevicesMapLock.Lock(0);
  if (devicesMapFree == 1) DevicesMapLock.Unlock();
  const int openedMapFree = OpenedDevicesMapLock.Lock(0);
  if (openedMapFree == 1) OpenedDevicesMapLock.Unlock();
  RescanLock.Unlock();
  setter.join();
  EXPECT_EQ(1, devicesMapFree);
  EXPECT_EQ(1, openedMapFree);
  EXPECT_EQ(0, result.load());
  EXPECT_EQ(0, ASPI_unsetExclusiveMode(0, 0));
}

// Sets, nested sets and unsets on one thread against rescans on another and
// plain opens of a second drive on a third, on a machine that HAL describes.
// Each hold lasts a little, so rescans pile up waiting for it. Every call must
// finish, every rescan must rebuild, no caller may see a half-built registry,
// and every HAL lock must be given back.
TEST(ExclusiveRace, SetsAndUnsetsRacingRescansNeverDeadlock) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  fixture::BuildIdeAndScsiMachine(world);
  world.AddFile("/etc/mtab", "/dev/sda1 / ext4 rw 0 0\n");
  HalDouble hal;
  ASSERT_TRUE(hal.Loaded());
  hal.Reset();
  hal.AddCdrom(kUdi, "/dev/scd0");
  hal.MapInto(world);
  SCSI_ResetDiscoveryState();
  SCSI_Init();
  ASSERT_TRUE(libhal_support_is_available());
  const int adapter = IdeAdapterCount;  // SCSI host 0: the drive at /dev/sg0
  world.ClearLogs();

  const int kHolds = 200;
  std::atomic<int> failures(0), rescans(0), opens(0);
  std::atomic<bool> applicationDone(false);
  const bool finished = FinishesWithin(std::chrono::seconds(60), [&] {
    std::thread application([&] {
      for (int i = 0; i < kHolds; ++i) {
        if (ASPI_setExclusiveMode(adapter, 0) != 0) ++failures;
        if (i % 3 == 0 && ASPI_setExclusiveMode(adapter, 0) != 0) ++failures;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        if (i % 3 == 0 && ASPI_unsetExclusiveMode(adapter, 0) != 0) ++failures;
        if (ASPI_unsetExclusiveMode(adapter, 0) != 0) ++failures;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      applicationDone = true;
    });
    std::thread monitor([&] {
      while (!applicationDone) {
        if (SCSI_Rescan()) ++rescans;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
    std::thread requests([&] {
      while (!applicationDone) {
        const int fd = SCSI_OpenDevice(0, 0, 0, 0, 0, nullptr);  // /dev/hdb
        if (fd == -1)
          ++failures;
        else
          kavo::os::Close(fd), ++opens;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    });
    application.join();
    monitor.join();
    requests.join();
  });
  ASSERT_TRUE(finished) << "a set, an unset, an open or a rescan deadlocked";
  EXPECT_EQ(0, failures.load());
  EXPECT_GE(rescans.load(), 10) << "the rescans must have run among the holds";
  EXPECT_GT(opens.load(), 0);
  EXPECT_GE(world.SleptMicroseconds(), 500u * 10) << "rescans must have waited for holds";
  EXPECT_EQ(0u, HeldEntries());
  EXPECT_EQ(5u, DevicesMap.size());
  Lines expected;
  for (int i = 0; i < kHolds; ++i) expected.insert(expected.end(), {kLock, kUnlock});
  EXPECT_EQ(expected, SentMethods(hal));
  SCSI_Done();
  EXPECT_EQ(0, world.OpenDescriptorCount());
  SCSI_ResetDiscoveryState();
}

}  // namespace
