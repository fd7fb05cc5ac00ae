// Start-up, shut-down and rebuilding: the kernel gate, the rescan's wait for
// exclusive holds, and the monitor join of SCSI_Done.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

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

}  // namespace
