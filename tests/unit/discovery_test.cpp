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

// "h02c00t00d00 /dev/sg0 /dev/scd0" a device, then "2 ata_piix emulated" an adapter.
Lines Registry() {
  Lines lines;
  DevicesMapHold hold;
  for (const auto& entry : DevicesMap)
    lines.push_back(std::string(entry.first.GetString()) + " " + entry.second->DevicePath.GetString() +
                    (entry.second->BlockDevicePath.IsEmpty() ? "" : " ") + entry.second->BlockDevicePath.GetString());
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
// ide-scsi host has no drives and does not count.
TEST_F(Discovery, MachinesNumberIdeInterfacesFirstAndScsiHostsAfterThem) {
  const struct {
    const char* machine;
    int ideAdapters, controllers;
    Lines registry;
  } rows[] = {
      {"ide_and_scsi", 2, 5,
       {"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hdc", "h01c00t01d00 /dev/hdd", "h02c00t00d00 /dev/sg0 /dev/scd0",
        "h04c00t03d00 /dev/sg1 /dev/sr1", "0 ide-cdrom real", "1 ide-cdrom real", "2 ata_piix emulated",
        "4 sym53c8xx real"}},
      {"kernel24_ide_scsi", 0, 2,
       {"h00c00t00d00 /dev/sg0 /dev/scd0", "h01c00t02d00 /dev/sg1 /dev/scd1", "0 ide-scsi emulated",
        "1 sym53c8xx real"}},
      {"kernel26_ide_scsi", 0, 1, {"h00c00t00d00 /dev/sg0 /dev/scd0", "0 usb-storage real", "1 ide-scsi emulated"}},
      {"no_drives", 0, 0, {}},
      {"ide_pass", 2, 2,
       {"h00c00t00d00 /dev/hde", "h00c00t01d00 /dev/hdf", "h01c00t00d00 /dev/hdi", "0 ide-cdrom real",
        "1 ide-cdrom real"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.machine);
    Machine(row.machine);
    SCSI_Init();
    EXPECT_EQ(row.ideAdapters, IdeAdapterCount);
    EXPECT_EQ(row.controllers, ControllerCount);
    EXPECT_EQ(row.registry, Registry());
    EXPECT_EQ(0, world->OpenDescriptorCount());
  }
}

// Names are read from sysfs as fgets reads a line of at most 63 characters;
// before 2.6 from the last /proc/scsi driver directory listing the host.
TEST_F(Discovery, AdapterNamesFromSysfsOrProcScsi) {
  const std::string sysfs = "/sys/class/scsi_host/host";
  const struct {
    int kernel26, host;
    Lines files;
    std::string name;
  } rows[] = {
      {1, 0, {sysfs + "0/proc_name", ""}, "unknown"},
      {1, 0, {sysfs + "0/proc_name", std::string(70, 'x') + "\n"}, std::string(63, 'x')},
      {1, 0, {sysfs + "0/proc_name", "qla2xxx\nsecond line\n"}, "qla2xxx"},
      {1, 0, {sysfs + "1/proc_name", "other host\n"}, "unknown"},
      {0, 0, {"/proc/scsi/aic7xxx/0", "", "/proc/scsi/usb-storage/0", "", "/proc/scsi/.hidden/0", ""}, "usb-storage"},
      {0, 1, {"/proc/scsi/usb-storage/10", "", sysfs + "1/proc_name", "ignored\n"}, "unknown"},
  };
  for (const auto& row : rows) {
    fixture::FixtureWorld& machine = Machine(nullptr, row.kernel26);
    for (size_t i = 0; i < row.files.size(); i += 2) machine.AddFile(row.files[i], row.files[i + 1]);
    machine.AddNode("/dev/sg0", std::make_shared<fixture::AddressedNode>(row.host, 0, 0, 0));
    SCSI_BuildRegistry();
    EXPECT_EQ(row.name, SCSI_GetAdapterName(row.host)) << &row - rows;
  }
}

// A walk ends after 16 failed nodes counted over the whole walk, or when the
// visitor says so; busy and forbidden nodes are skipped uncounted, silent ones count.
TEST_F(Discovery, NodeWalkEndsAfterSixteenFailures) {
  const struct {
    std::vector<int> nodes, refused, silent;
    int stopTarget;
    Lines taken;
    std::string last;
  } rows[] = {
      {{0, 1, 2, 12, 20}, {}, {}, -1, {"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg12"}, "/dev/sg19"},
      {{0, 1, 2, 12, 20}, {}, {}, 2, {"/dev/sg0", "/dev/sg1", "/dev/sg2"}, "/dev/sg2"},
      {{0, 1, 2, 3, 4, 5, 6, 7, 8}, {0, 1, 2, 3, 4, 5}, {6, 7}, -1, {"/dev/sg8"}, "/dev/sg22"},
  };
  for (const auto& row : rows) {
    fixture::FixtureWorld& machine = Machine();
    for (int n : row.nodes) {
      auto node = std::make_shared<fixture::AddressedNode>(0, 0, n, 0);
      node->answersAddress_ = std::count(row.silent.begin(), row.silent.end(), n) == 0;
      machine.AddNode("/dev/sg" + std::to_string(n), node);
    }
    for (int n : row.refused) machine.FailOpen("/dev/sg" + std::to_string(n), n % 2 ? EACCES : EBUSY);
    Lines taken;
    SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY, [&](int, char const* path, const SCSI_NodeAddress& at) {
      return taken.push_back(path), at.target == row.stopTarget;
    });
    EXPECT_EQ(row.taken, taken);
    EXPECT_EQ(row.last, machine.Opens().back().path);
    EXPECT_EQ(0, machine.OpenDescriptorCount());
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

// HAL starts only on 2.6 and when it comes up; each drive gets the first UDI
// naming its node or block node; a purge unlocks only what HAL locked.
TEST_F(Discovery, HalGivesDrivesTheirUdisAndGetsItsLocksBack) {
  const std::string dvd = "/org/freedesktop/Hal/devices/dvd", cd = "/org/freedesktop/Hal/devices/cd";
  const struct {
    const char *machine, *failing;
    bool available;
    std::vector<int> adapters;  // the drives at target 0 of these
    Lines udis;
  } rows[] = {{"kernel24_ide_scsi", "", false, {0}, {""}},
              {"ide_and_scsi", "libhal_ctx_init", false, {1, 2}, {"", ""}},
              {"ide_and_scsi", "", true, {1, 2}, {dvd, cd}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.machine);
    fixture::FixtureWorld& machine = Machine(row.machine);
    fixture::FakeHal& hal = fixture::InstallFakeHal(machine);
    hal.cdroms = {{"/org/freedesktop/Hal/devices/none", ""}, {dvd, "/dev/hdc"}, {cd, "/dev/scd0"},
                  {cd + "_0", "/dev/scd0"}, {"/org/freedesktop/Hal/devices/usb", "/dev/sr7"}};
    hal.failing = row.failing;
    SCSI_Init();
    EXPECT_EQ(row.available, libhal_support_is_available());
    Lines udis;
    for (int adapter : row.adapters) udis.push_back(SCSI_GetDeviceProperties(adapter, 0, 0, 0)->HalUdi.GetString());
    EXPECT_EQ(row.udis, udis);
    for (const char* path : {"/dev/hdc", "/dev/sg0"})
      if (row.available)
        OpenedDevicesMap[CBasicString<char>(path)] = new SCSI_RefCountedFileDesc{kavo::os::Open(path, 0), 1, path[5] == 'h'};
    SCSI_BuildRegistry();
    EXPECT_EQ(row.available ? Lines{"Unlock " + dvd} : Lines{}, hal.Sent());
    EXPECT_EQ(0, machine.OpenDescriptorCount());
    SCSI_Done();
    EXPECT_FALSE(libhal_support_is_available());
    EXPECT_EQ(0, hal.outstanding);
  }
}

}  // namespace
