// Start-up, shut-down and rebuilding: the kernel gate, the purge of the
// descriptor cache, the rescan's wait for exclusive holds, and the monitor
// join of SCSI_Done.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
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

TEST_F(Discovery, InitOnAnOldOrUnknownKernelLeavesTheIdePassOut) {
  fixture::BuildIdeAndScsiMachine(world);
  world.SetUname("2.6");
  SCSI_Init();
  EXPECT_EQ(0, IsKernel26);
  EXPECT_EQ(0, IdeAdapterCount);
  SCSI_ResetDiscoveryState();
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

// The rescan only tries the map locks while it holds RescanLock, so even a
// thread that takes them out of order (both map locks, then RescanLock)
// cannot deadlock with it. Here a rescan and such a thread both wait for
// RescanLock while a device open holds it; whichever gets it next, both must
// finish.
TEST_F(Discovery, RescanAndAnExclusiveSetDoNotDeadlock) {
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  for (int round = 0; round < 20; ++round) {
    RescanLock.Lock(0xFFFFFFFF);
    std::atomic<int> finished(0);
    std::atomic<bool> mapsHeld(false);
    std::thread monitor([&] {
      EXPECT_TRUE(SCSI_Rescan());
      ++finished;
    });
    std::thread setter([&] {
      SCSI_AcquireDevicesMapLock();
      OpenedDevicesMapLock.Lock(0xFFFFFFFF);
      mapsHeld = true;
      RescanLock.Lock(0xFFFFFFFF);
      HoldExclusively("/dev/sg0");
      RescanLock.Unlock();
      OpenedDevicesMapLock.Unlock();
      SCSI_ReleaseDevicesMapLock();
      ReleaseAllHolds();
      ++finished;
    });
    while (!mapsHeld) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    RescanLock.Unlock();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (finished < 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    if (finished < 2) {
      ADD_FAILURE() << "rescan and exclusive set deadlocked in round " << round;
      std::abort();
    }
    monitor.join();
    setter.join();
  }
  EXPECT_EQ(5u, DevicesMap.size());
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

}  // namespace
