// Discovery on machines no kernel here can show: the legacy IDE driver,
// 2.4-era /proc/scsi, adapter names, the node walk's limits, rescans that
// wait for holds, and HAL around it.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using Lines = std::vector<std::string>;

// "h02c00t00d00 /dev/sg0 /dev/scd0 UDI" a device (block node and HAL's UDI
// where it has them), then "2 ata_piix emulated" an adapter.
Lines Registry() {
  Lines lines;
  DevicesMapHold hold;
  for (const auto& entry : DevicesMap) {
    std::string line = std::string(entry.first.GetString()) + " " + entry.second->DevicePath.GetString();
    for (const CBasicString<char>* more : {&entry.second->BlockDevicePath, &entry.second->HalUdi})
      if (!more->IsEmpty()) line += std::string(" ") + more->GetString();
    lines.push_back(line);
  }
  for (const auto& entry : HostAdaptersMap)
    lines.push_back(std::to_string(entry.first) + " " + entry.second->AdapterName.GetString() +
                    (entry.second->IsEmulated ? " emulated" : " real"));
  return lines;
}

// Each machine's registry, with the IDE adapter and controller counts
// first, is what its data file expects.
TEST(Discovery, MachinesNumberIdeInterfacesFirstAndScsiHostsAfterThem) {
  for (const char* name :
       {"ide_and_scsi_hal", "kernel24_ide_scsi", "kernel26_ide_scsi", "no_drives", "ide_pass", "walk_and_names"}) {
    SCOPED_TRACE(name);
    fixture::FixtureWorld world;
    world.Load(name);
    SCSI_Init();
    Lines found = Registry();
    found.insert(found.begin(), "counts " + std::to_string(IdeAdapterCount) + " " + std::to_string(ControllerCount));
    EXPECT_EQ(world.expected, found);
    SCSI_Done();
    EXPECT_EQ(0, world.OpenDescriptorCount());
    EXPECT_EQ(0, fixture::LastFakeHal().outstanding) << "HAL's lists and strings all given back";
  }
}

TEST(KernelGate, AcceptsThreeFieldReleasesFrom26On) {
  for (const char* release : {"2.6.18-8.el5", "2.6.0", "3.2.0-4-686", "4.1.0", "10.0.1"})
    EXPECT_TRUE(SCSI_IsKernel26Release(release)) << release;
  for (const char* release : {"2.4.31", "2.5.75", "1.9.9", "2.6", "6.1-rc1", ""})
    EXPECT_FALSE(SCSI_IsKernel26Release(release)) << release;
}

// A rescan polls (in fake time) until the last exclusive hold is gone,
// without blocking device opens; it gives up when the monitor must stop.
TEST(Discovery, RescanWaitsForTheLastHoldOrTheStopRequest) {
  for (bool stop : {false, true}) {
    fixture::FixtureWorld machine;
    machine.Load("ide_and_scsi");
    SCSI_Init();
    const int fd = kavo::os::Open("/dev/sg0", 0);
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] = new SCSI_RefCountedFileDesc{fd, 1, false};
    machine.Remove("/dev/sg1");
    std::atomic<int> rebuilt(-1);
    std::thread monitor([&] { rebuilt = SCSI_Rescan(); });
    while (machine.sleepCalls < 20 && rebuilt == -1) std::this_thread::yield();
    EXPECT_EQ(-1, rebuilt.load());
    EXPECT_EQ(5u, DevicesMap.size()) << "nothing is purged while a drive is held";
    EXPECT_EQ(1, RescanLock.Lock(5000)) << "a device open may proceed during the wait";
    RescanLock.Unlock();
    MonitorStopRequest.store(stop);
    if (!stop) {  // the hold ends
      CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
      delete OpenedDevicesMap.begin()->second;
      OpenedDevicesMap.clear();
    }
    monitor.join();
    MonitorStopRequest.store(0);
    EXPECT_EQ(!stop, rebuilt.load());
    EXPECT_EQ(stop ? 5u : 4u, DevicesMap.size());
    EXPECT_GE(machine.slept, 500u * 20);
    kavo::os::Close(fd);
  }
}

}  // namespace
