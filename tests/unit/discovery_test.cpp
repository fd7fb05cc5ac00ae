// Discovery on machines no kernel here can show: the legacy IDE driver,
// 2.4-era /proc/scsi, adapter names, the node walk's limits, rescans that
// wait for holds, and HAL around it.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
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

class Discovery : public ::testing::Test {
 protected:
  void SetUp() override { SCSI_ResetDiscoveryState(); }
  void TearDown() override { SCSI_ResetDiscoveryState(); }
  // A fresh world from a data file (or empty), served from here on.
  fixture::FixtureWorld& Machine(const char* name = nullptr, int kernel26 = 1) {
    scope.reset();
    world.reset(new fixture::FixtureWorld);
    scope.reset(new fixture::FixtureWorld::Scope(*world));
    SCSI_ResetDiscoveryState();
    if (name) world->Load(name);  // SCSI_Init reads the kernel's release
    else IsKernel26 = kernel26;
    return *world;
  }
  std::unique_ptr<fixture::FixtureWorld> world;
  std::unique_ptr<fixture::FixtureWorld::Scope> scope;
};

// IDE interfaces with a reachable ide-cdrom drive are numbered first and
// densely, their drives by letter; SCSI hosts come after them. Before 2.6
// ide-scsi drives count and hosts are named from /proc/scsi; from 2.6 on an
// ide-scsi host has no drives and does not count. Each drive gets HAL's
// first UDI naming its node or block node. The generic node walk ends
// after 16 failed nodes.
TEST_F(Discovery, MachinesNumberIdeInterfacesFirstAndScsiHostsAfterThem) {
  const std::string cd = "/org/freedesktop/Hal/devices/cd", dvd = "/org/freedesktop/Hal/devices/dvd";
  const std::vector<std::pair<std::string, std::string>> halCdroms = {
      {"/org/freedesktop/Hal/devices/none", ""}, {dvd, "/dev/hdc"}, {cd, "/dev/scd0"}, {cd + "_0", "/dev/scd0"}};
  const struct {
    const char* machine;
    bool hal;
    int ideAdapters, controllers;
    Lines registry;
  } rows[] = {
      {"ide_and_scsi", true, 2, 5,
       {"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hdc " + dvd, "h01c00t01d00 /dev/hdd",
        "h02c00t00d00 /dev/sg0 /dev/scd0 " + cd,
        "h04c00t03d00 /dev/sg1 /dev/sr1", "0 ide-cdrom real", "1 ide-cdrom real", "2 ata_piix emulated",
        "4 sym53c8xx real"}},
      {"kernel24_ide_scsi", true, 0, 2,
       {"h00c00t00d00 /dev/sg0 /dev/scd0", "h01c00t02d00 /dev/sg1 /dev/scd1", "0 ide-scsi emulated",
        "1 sym53c8xx real"}},
      {"kernel26_ide_scsi", false, 0, 1, {"h00c00t00d00 /dev/sg0 /dev/scd0", "0 usb-storage real", "1 ide-scsi emulated"}},
      {"no_drives", false, 0, 0, {}},
      {"ide_pass", false, 2, 2,
       {"h00c00t00d00 /dev/hde", "h00c00t01d00 /dev/hdf", "h01c00t00d00 /dev/hdi", "0 ide-cdrom real",
        "1 ide-cdrom real"}},
      {"walk_and_names", false, 0, 2,
       {"h00c00t00d00 /dev/sg0", "h01c00t03d00 /dev/sg16", "0 " + std::string(63, 'x') + " real", "1 qla2xxx real"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.machine);
    Machine(row.machine);
    if (row.hal) fixture::InstallFakeHal(*world).cdroms = halCdroms;
    SCSI_Init();
    EXPECT_EQ(row.ideAdapters, IdeAdapterCount);
    EXPECT_EQ(row.controllers, ControllerCount);
    EXPECT_EQ(row.registry, Registry());
    SCSI_Done();
    EXPECT_EQ(0, world->OpenDescriptorCount());
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
TEST_F(Discovery, RescanWaitsForTheLastHoldOrTheStopRequest) {
  for (bool stop : {false, true}) {
    fixture::FixtureWorld& machine = Machine("ide_and_scsi");
    SCSI_Init();
    const int fd = kavo::os::Open("/dev/sg0", 0);
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] = new SCSI_RefCountedFileDesc{fd, 1, false};
    machine.Remove("/dev/sg1");
    std::atomic<int> rebuilt(-1);
    std::thread monitor([&] { rebuilt = SCSI_Rescan(); });
    while (machine.SleepCalls() < 20 && rebuilt == -1) std::this_thread::yield();
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
    EXPECT_GE(machine.SleptMicroseconds(), 500u * 20);
    kavo::os::Close(fd);
    fixture::RegistryReset();
  }
}

}  // namespace
