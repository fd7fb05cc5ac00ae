// Start-up, shut-down and rebuilding: the kernel gate, the rescan's wait for
// exclusive holds, the monitor join of SCSI_Done, and HAL around them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
#include "tests/doubles/hal_double_control.h"
#include "tests/fixture/machines.h"

namespace {

class Discovery : public ::testing::Test {
 protected:
  void SetUp() override { SCSI_ResetDiscoveryState(); }
  void TearDown() override {
    for (auto& entry : OpenedDevicesMap) delete entry.second;
    OpenedDevicesMap.clear();
    SCSI_ResetDiscoveryState();
  }

  // A hold as exclusive mode records it, on an open descriptor of path.
  void HoldExclusively(const char* path) {
    SCSI_RefCountedFileDesc* hold = new SCSI_RefCountedFileDesc{kavo::os::Open(path, 0), 1, false};
    CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
    OpenedDevicesMap[CBasicString<char>(path)] = hold;
  }
  void ReleaseAllHolds() {
    CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
    for (auto& entry : OpenedDevicesMap) {
      kavo::os::Close(entry.second->nFileDesc);
      delete entry.second;
    }
    OpenedDevicesMap.clear();
  }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

TEST(KernelGate, AcceptsThreeFieldReleasesFrom26On) {
  for (const char* release : {"2.6.18-8.el5", "2.6.0", "3.2.0-4-686", "4.1.0", "10.0.1"})
    EXPECT_TRUE(SCSI_IsKernel26Release(release)) << release;
  for (const char* release : {"2.4.31", "2.5.75", "1.9.9", "2.6", "6.1-rc1", ""})
    EXPECT_FALSE(SCSI_IsKernel26Release(release)) << release;
}

TEST_F(Discovery, InitOnAnUnknownKernelLeavesTheIdePassOut) {
  fixture::BuildIdeAndScsiMachine(world);
  world.FailUname();
  SCSI_Init();
  EXPECT_EQ(0, IsKernel26);
  EXPECT_EQ(0, IdeAdapterCount);
  EXPECT_EQ(1u, HostAdaptersMap.count(0)) << "the SCSI host pass still runs";
}

TEST_F(Discovery, RescanWaitsForTheLastExclusiveHoldWithoutBlockingOpens) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  HoldExclusively("/dev/sg0");
  world.Remove("/dev/sg1");
  world.ClearLogs();
  std::atomic<bool> rebuilt(false);
  std::thread monitor([&] { rebuilt = SCSI_Rescan(); });
  while (world.SleepCalls() < 20) std::this_thread::yield();
  EXPECT_FALSE(rebuilt.load());
  EXPECT_EQ(5u, DevicesMap.size()) << "nothing is purged while a drive is held";
  std::thread opener([] {
    EXPECT_EQ(1, RescanLock.Lock(5000)) << "a device open may proceed during the wait";
    RescanLock.Unlock();
  });
  opener.join();
  ReleaseAllHolds();
  monitor.join();
  EXPECT_TRUE(rebuilt.load());
  EXPECT_EQ(4u, DevicesMap.size());
  EXPECT_GE(world.SleptMicroseconds(), 500u * 20);
}

TEST_F(Discovery, RescanWaitEndsWhenTheMonitorIsToldToStop) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  HoldExclusively("/dev/hdb");
  std::thread monitor([] { EXPECT_FALSE(SCSI_Rescan()); });
  while (world.SleepCalls() < 5) std::this_thread::yield();
  MonitorStopRequest.store(1);
  monitor.join();
  MonitorStopRequest.store(0);
  EXPECT_EQ(1u, OpenedDevicesMap.size());
  EXPECT_EQ(5u, DevicesMap.size());
  ReleaseAllHolds();
}

TEST_F(Discovery, DoneJoinsARunningMonitor) {
  std::atomic<bool> stopped(false);
  MonitorRunning = 1;
  ASSERT_EQ(0, pthread_create(
                   &MonitorThread, nullptr,
                   [](void* flag) -> void* {
                     while (MonitorStopRequest.load() == 0) sched_yield();
                     static_cast<std::atomic<bool>*>(flag)->store(true);
                     return nullptr;
                   },
                   &stopped));
  SCSI_Done();
  EXPECT_TRUE(stopped.load());
  EXPECT_EQ(0, MonitorRunning);
  EXPECT_EQ(0, MonitorStopRequest.load());
  SCSI_Done();  // nothing left to join
}

const char kDvdUdi[] = "/org/freedesktop/Hal/devices/storage_model_DVD_ROM_hdc";
const char kScsiUdi[] = "/org/freedesktop/Hal/devices/storage_model_CD_ROM_scd0";
const char kLaterScsiUdi[] = "/org/freedesktop/Hal/devices/storage_model_CD_ROM_scd0_0";

// With HAL present (the HAL double loaded as libhal.so.1): HAL's start and
// shut-down around the registry, the UDIs it gives the drives, and the HAL
// locks a purge gives back.
class DiscoveryWithHal : public Discovery {
 protected:
  void SetUp() override {
    Discovery::SetUp();
    ASSERT_TRUE(hal.Loaded());
    hal.Reset();
    hal.MapInto(world);
  }
  void TearDown() override {
    SCSI_Done();
    Discovery::TearDown();
    EXPECT_TRUE(hal.AllReleased());
  }

  std::string UdiOf(int adapter, int target) {
    DevicesMapHold hold;
    SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(adapter, 0, target, 0);
    return device == nullptr ? "(no device)" : device->HalUdi.GetString();
  }

  HalDouble hal;
};

TEST_F(DiscoveryWithHal, GivesEachDriveTheFirstUdiOfItsNode) {
  hal.AddCdrom("/org/freedesktop/Hal/devices/storage_no_block", nullptr);
  hal.AddCdrom(kDvdUdi, "/dev/hdc");
  hal.AddCdrom(kScsiUdi, "/dev/scd0");
  hal.AddCdrom(kLaterScsiUdi, "/dev/scd0");
  hal.AddCdrom("/org/freedesktop/Hal/devices/storage_usb", "/dev/sr7");
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  EXPECT_TRUE(libhal_support_is_available());
  EXPECT_EQ(kDvdUdi, UdiOf(1, 0)) << "matched by DevicePath";
  EXPECT_EQ(kScsiUdi, UdiOf(2, 0)) << "matched by BlockDevicePath, HAL's first wins";
  EXPECT_EQ("", UdiOf(0, 0));
  EXPECT_EQ("", UdiOf(4, 3)) << "/dev/sr1 is not among HAL's drives";
  SCSI_Done();
  EXPECT_FALSE(libhal_support_is_available());
  EXPECT_EQ(5u, DevicesMap.size()) << "Done leaves the registry";
}

TEST_F(DiscoveryWithHal, StartsOnlyOn26AndOnlyWhenItComesUp) {
  hal.AddCdrom(kScsiUdi, "/dev/scd0");
  fixture::BuildKernel24IdeScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(0, hal.Calls("libhal_ctx_new"));
  EXPECT_EQ("", UdiOf(0, 0));
  SCSI_ResetDiscoveryState();
  world.SetUname("2.6.32-5-686");
  hal.Fail(HAL_DOUBLE_CONTEXT_INIT);
  SCSI_Init();
  EXPECT_FALSE(libhal_support_is_available());
  EXPECT_EQ("", UdiOf(0, 0));
  EXPECT_EQ(0, hal.Calls("libhal_find_device_by_capability"));
}

TEST_F(DiscoveryWithHal, PurgeUnlocksOnlyTheHoldsHalLocked) {
  hal.AddCdrom(kDvdUdi, "/dev/hdc");
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  {
    CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
    OpenedDevicesMap[CBasicString<char>("/dev/hdc")] =
        new SCSI_RefCountedFileDesc{kavo::os::Open("/dev/hdc", 0), 1, true};
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] =
        new SCSI_RefCountedFileDesc{kavo::os::Open("/dev/sg0", 0), 1, false};
  }
  SCSI_BuildRegistry();
  const std::vector<HalDoubleMethodCall> sent = hal.Sent();
  ASSERT_EQ(1u, sent.size());
  EXPECT_STREQ("Unlock", sent[0].method);
  EXPECT_STREQ(kDvdUdi, sent[0].path);
  EXPECT_TRUE(OpenedDevicesMap.empty());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

}  // namespace
