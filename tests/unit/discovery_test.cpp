// Discovery on machines no kernel here can show: adapter numbering across
// the legacy IDE driver and SCSI hosts, 2.4-era /proc/scsi, adapter names,
// the node walk's limits, rescans that wait for holds, and HAL around it.
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

// The registry as text: "h02c00t00d00 /dev/sg0 /dev/scd0" a device, then
// "2 ata_piix emulated" an adapter.
Lines Registry() {
  Lines lines;
  DevicesMapHold hold;
  for (const auto& entry : DevicesMap)
    lines.push_back(std::string(entry.first.GetString()) + " " + entry.second->DevicePath.GetString() +
                    (entry.second->BlockDevicePath.IsEmpty() ? "" : " ") + entry.second->BlockDevicePath.GetString());
  CPosixSingleLock adapters(&HostAdaptersMapLock, 1);
  for (const auto& entry : HostAdaptersMap)
    lines.push_back(std::to_string(entry.first) + " " + entry.second->AdapterName.GetString() +
                    (entry.second->IsEmulated ? " emulated" : " real"));
  return lines;
}

class Discovery : public ::testing::Test {
 protected:
  void SetUp() override {
    SCSI_ResetDiscoveryState();
    IsKernel26 = 1;
  }
  void TearDown() override { SCSI_ResetDiscoveryState(); }
  // The opened paths that start with prefix, in order.
  Lines Opened(const std::string& prefix) const {
    Lines paths;
    for (const fixture::OpenRecord& open : world.Opens())
      if (open.path.compare(0, prefix.size(), prefix) == 0) paths.push_back(open.path);
    return paths;
  }
  void Node(int n, int host, int channel, int target, int lun = 0) {
    world.AddNode("/dev/sg" + std::to_string(n), std::make_shared<fixture::AddressedNode>(host, channel, target, lun));
  }
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
};

TEST_F(Discovery, MachinesNumberIdeInterfacesFirstAndScsiHostsAfterThem) {
  const struct {
    const char* machine;
    int ideAdapters, controllers;
    Lines registry, ideOpens;
    size_t genericOpens;
  } rows[] = {
      {"ide_and_scsi", 2, 5,
       {"h00c00t00d00 /dev/hdb", "h01c00t00d00 /dev/hdc", "h01c00t01d00 /dev/hdd", "h02c00t00d00 /dev/sg0 /dev/scd0",
        "h04c00t03d00 /dev/sg1 /dev/sr1", "0 ide-cdrom real", "1 ide-cdrom real", "2 ata_piix emulated",
        "4 sym53c8xx real"},
       {"/dev/hdb", "/dev/hdd", "/dev/hdc", "/dev/hde"}, 18},
      // Before 2.6 ide-scsi drives count and hosts are named from /proc/scsi.
      {"kernel24_ide_scsi", 0, 2,
       {"h00c00t00d00 /dev/sg0 /dev/scd0", "h01c00t02d00 /dev/sg1 /dev/scd1", "0 ide-scsi emulated",
        "1 sym53c8xx real"}, {}, 18},
      // From 2.6 on an ide-scsi host is registered without its drives and does not count.
      {"kernel26_ide_scsi", 0, 1, {"h00c00t00d00 /dev/sg0 /dev/sr0", "0 usb-storage real", "1 ide-scsi emulated"}, {}, 18},
      {"no_drives", 0, 0, {}, {}, 16},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.machine);
    SCSI_ResetDiscoveryState();
    fixture::FixtureWorld machine;
    fixture::FixtureWorld::Scope machineScope(machine);
    machine.Load(row.machine);
    SCSI_Init();
    EXPECT_EQ(row.ideAdapters, IdeAdapterCount);
    EXPECT_EQ(row.controllers, ControllerCount);
    EXPECT_EQ(row.registry, Registry());
    Lines ideOpens;
    size_t genericOpens = 0;
    for (const fixture::OpenRecord& open : machine.Opens()) {
      const bool generic = open.path.compare(0, 7, "/dev/sg") == 0;
      if (open.path.compare(0, 7, "/dev/hd") == 0) ideOpens.push_back(open.path);
      genericOpens += generic;
      EXPECT_EQ(generic ? O_RDWR | O_NONBLOCK : O_RDONLY | O_NONBLOCK, open.flags) << open.path;
    }
    EXPECT_EQ(row.ideOpens, ideOpens) << "only drives of the ide-cdrom driver are opened";
    EXPECT_EQ(row.genericOpens, genericOpens);
    EXPECT_EQ(0, machine.OpenDescriptorCount());
  }
}

TEST_F(Discovery, RebuildReplacesTheWholeRegistryAndRenumbers) {
  world.Load("ide_and_scsi");
  SCSI_Init();
  world.Remove("/proc/ide/ide0/hdb");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hdc", "h00c00t01d00 /dev/hdd", "h01c00t00d00 /dev/sg0 /dev/scd0",
                   "h03c00t03d00 /dev/sg1 /dev/sr1", "0 ide-cdrom real", "1 ata_piix emulated", "3 sym53c8xx real"}),
            Registry());
  fixture::FixtureWorld other;
  fixture::FixtureWorld::Scope otherScope(other);
  other.Load("kernel26_ide_scsi");
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/sg0 /dev/sr0", "0 usb-storage real", "1 ide-scsi emulated"}), Registry());
}

// Interfaces with a reachable ide-cdrom drive are numbered densely, their
// drives by letter; unreachable drives and other drivers are left out.
TEST_F(Discovery, IdePassNumbersReachableCdromDrives) {
  const struct {
    const char *drive, *driver;
    int error;  // the open fails with it; -1: the status request fails
  } rows[] = {{"ide0/hda", "ide-cdrom", -1},       {"ide0/hdb", "ide-cdrom", ENXIO},
              {"ide1/hdc", "ide-cdrom-extended", 0}, {"ide1/hdd", nullptr, 0},
              {"ide2/hdf", "ide-cdrom version 4.61", 0}, {"ide2/hde", "ide-cdrom\tversion", 0},
              {"ide3/hdg", "  ", 0},                  {"ide4/hdi", "ide-cdrom", 0}};
  for (const auto& row : rows) {
    const std::string drive = row.drive, node = "/dev/" + drive.substr(5);
    world.AddDirectory("/proc/ide/" + drive);
    if (row.driver) world.AddFile("/proc/ide/" + drive + "/driver", std::string(row.driver) + "\n");
    auto addressed = std::make_shared<fixture::AddressedNode>(drive[3] - '0', 0, node.back() - 'a', 0);
    addressed->answersDriveStatus_ = row.error != -1;
    world.AddNode(node, addressed);
    if (row.error > 0) world.FailOpen(node, row.error);
  }
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h00c00t00d00 /dev/hde", "h00c00t01d00 /dev/hdf", "h01c00t00d00 /dev/hdi", "0 ide-cdrom real",
                   "1 ide-cdrom real"}),
            Registry());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

// Names are read from sysfs like fgets reads a line of at most 63 characters;
// before 2.6 from the last /proc/scsi driver directory listing the host.
TEST_F(Discovery, AdapterNamesFromSysfsOrProcScsi) {
  const std::string sysfs = "/sys/class/scsi_host/host";
  const struct {
    int kernel26, host;
    std::vector<std::pair<std::string, std::string>> files;
    std::string name;
  } rows[] = {
      {1, 0, {{sysfs + "0/proc_name", ""}}, "unknown"},
      {1, 0, {{sysfs + "0/proc_name", std::string(70, 'x') + "\n"}}, std::string(63, 'x')},
      {1, 0, {{sysfs + "0/proc_name", "qla2xxx\nsecond line\n"}}, "qla2xxx"},
      {1, 0, {{sysfs + "1/proc_name", "other host\n"}}, "unknown"},
      {0, 0, {{"/proc/scsi/aic7xxx/0", ""}, {"/proc/scsi/usb-storage/0", ""}, {"/proc/scsi/.hidden/0", ""}}, "usb-storage"},
      {0, 1, {{"/proc/scsi/usb-storage/10", ""}, {sysfs + "1/proc_name", "ignored\n"}}, "unknown"},
  };
  for (const auto& row : rows) {
    fixture::FixtureWorld machine;
    fixture::FixtureWorld::Scope machineScope(machine);
    SCSI_ResetDiscoveryState();
    IsKernel26 = row.kernel26;
    for (const auto& file : row.files) machine.AddFile(file.first, file.second);
    machine.AddNode("/dev/sg0", std::make_shared<fixture::AddressedNode>(row.host, 0, 0, 0));
    SCSI_BuildRegistry();
    EXPECT_EQ(row.name, SCSI_GetAdapterName(row.host)) << &row - rows;
  }
}

TEST_F(Discovery, FirstNodeOfAHostDecidesItsAdapterAndBlockNodesNameRegisteredDevicesOnly) {
  world.AddFile("/sys/class/scsi_host/host1/proc_name", "ahci\n");
  world.AddNode("/dev/sg0", std::make_shared<fixture::AddressedNode>(1, 0, 0, 0, 1));
  Node(1, 1, 0, 1);
  Node(2, 1, 2, 5, 3);
  world.AddNode("/dev/scd0", std::make_shared<fixture::AddressedNode>(1, 0, 0, 0));
  world.AddNode("/dev/sr1", std::make_shared<fixture::AddressedNode>(1, 0, 6, 0));
  SCSI_BuildRegistry();
  EXPECT_EQ((Lines{"h01c00t00d00 /dev/sg0 /dev/scd0", "h01c00t01d00 /dev/sg1", "h01c02t05d03 /dev/sg2",
                   "1 ahci emulated"}),
            Registry());
  EXPECT_EQ(2, ControllerCount);
}

// A walk ends after 16 failed nodes counted over the whole walk; busy and
// forbidden nodes are skipped uncounted, silent ones count.
TEST_F(Discovery, NodeWalkEndsAfterSixteenFailures) {
  const struct {
    std::vector<int> nodes, busy, silent;
    int stopTarget;
    Lines taken;
    std::string last;
  } rows[] = {
      {{0, 1, 2, 12, 20}, {}, {}, -1, {"/dev/sg0", "/dev/sg1", "/dev/sg2", "/dev/sg12"}, "/dev/sg19"},
      {{0, 1, 2, 12, 20}, {}, {}, 2, {"/dev/sg0", "/dev/sg1", "/dev/sg2"}, "/dev/sg2"},  // the visitor ends it
      {{0, 1, 2, 3, 4, 5, 6, 7, 8}, {0, 1, 2, 3, 4, 5}, {6, 7}, -1, {"/dev/sg8"}, "/dev/sg22"},
  };
  for (const auto& row : rows) {
    fixture::FixtureWorld machine;
    fixture::FixtureWorld::Scope machineScope(machine);
    for (int n : row.nodes) {
      auto node = std::make_shared<fixture::AddressedNode>(0, 0, n, 0);
      node->answersAddress_ = std::find(row.silent.begin(), row.silent.end(), n) == row.silent.end();
      machine.AddNode("/dev/sg" + std::to_string(n), node);
    }
    for (int n : row.busy) machine.FailOpen("/dev/sg" + std::to_string(n), n % 2 ? EACCES : EBUSY);
    Lines taken;
    SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY, [&](int, char const* path, const SCSI_NodeAddress& at) {
      taken.push_back(path);
      return at.target == row.stopTarget;
    });
    EXPECT_EQ(row.taken, taken);
    EXPECT_EQ(row.last, machine.Opens().back().path);
    EXPECT_EQ(0, machine.OpenDescriptorCount());
  }
}

TEST_F(Discovery, PresenceAnswersFromTheRegistryElseByTheWholeAddress) {
  Node(0, 0, 0, 0);
  Node(1, 2, 1, 3, 4);
  SCSI_RegisterAdapter(0, "ide-scsi", 1);
  IdeAdapterCount = 2;
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(3, 0, 4, 0), SCSI_NewDeviceProperties("/dev/sg9"));
  EXPECT_TRUE(SCSI_IsDevicePresent(1, 0, 4, 0)) << "Linux host 1 is ASPI adapter 3";
  EXPECT_TRUE(world.Opens().empty());
  IdeAdapterCount = 0;
  EXPECT_TRUE(SCSI_IsDevicePresent(2, 1, 3, 4));
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, world.Opens().back().flags);
  EXPECT_FALSE(SCSI_IsDevicePresent(2, 0, 3, 4));
  EXPECT_FALSE(SCSI_IsDevicePresent(0, 0, 0, 0)) << "an ide-scsi node does not count";
  IsKernel26 = 0;
  EXPECT_TRUE(SCSI_IsDevicePresent(0, 0, 0, 0)) << "except before 2.6";
  EXPECT_EQ(1u, DevicesMap.size()) << "the probe registers nothing";
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

TEST(KernelGate, AcceptsThreeFieldReleasesFrom26On) {
  for (const char* release : {"2.6.18-8.el5", "2.6.0", "3.2.0-4-686", "4.1.0", "10.0.1"})
    EXPECT_TRUE(SCSI_IsKernel26Release(release)) << release;
  for (const char* release : {"2.4.31", "2.5.75", "1.9.9", "2.6", "6.1-rc1", ""})
    EXPECT_FALSE(SCSI_IsKernel26Release(release)) << release;
}

// A rescan polls (in fake time) until the last exclusive hold is gone,
// without blocking device opens, and gives up when the monitor must stop.
TEST_F(Discovery, RescanWaitsForTheLastHoldOrTheStopRequest) {
  world.Load("ide_and_scsi");
  SCSI_Init();
  for (bool stop : {false, true}) {
    SCSI_RefCountedFileDesc* held = new SCSI_RefCountedFileDesc{kavo::os::Open("/dev/sg0", 0), 1, false};
    {
      CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
      OpenedDevicesMap[CBasicString<char>("/dev/sg0")] = held;
    }
    world.Remove(stop ? "/dev/sg0" : "/dev/sg1");
    world.ClearLogs();
    std::atomic<int> rebuilt(-1);
    std::thread monitor([&] { rebuilt = SCSI_Rescan(); });
    while (world.SleepCalls() < 20 && rebuilt == -1) std::this_thread::yield();
    EXPECT_EQ(-1, rebuilt.load());
    EXPECT_EQ(stop ? 4u : 5u, DevicesMap.size()) << "nothing is purged while a drive is held";
    EXPECT_EQ(1, RescanLock.Lock(5000)) << "a device open may proceed during the wait";
    RescanLock.Unlock();
    if (stop) MonitorStopRequest.store(1);
    {
      CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
      if (!stop) OpenedDevicesMap.clear();
    }
    monitor.join();
    MonitorStopRequest.store(0);
    EXPECT_EQ(!stop, rebuilt.load());
    EXPECT_EQ(4u, DevicesMap.size());
    EXPECT_GE(world.SleptMicroseconds(), 500u * 20);
    kavo::os::Close(held->nFileDesc);
    if (!stop) delete held;
  }
  for (auto& entry : OpenedDevicesMap) delete entry.second;
  OpenedDevicesMap.clear();
}

TEST_F(Discovery, DoneJoinsARunningMonitor) {
  std::atomic<bool> stopped(false);
  MonitorRunning = 1;
  ASSERT_EQ(0, pthread_create(&MonitorThread, nullptr, [](void* flag) -> void* {
                 while (MonitorStopRequest.load() == 0) sched_yield();
                 return static_cast<std::atomic<bool>*>(flag)->store(true), nullptr;
               }, &stopped));
  SCSI_Done();
  EXPECT_TRUE(stopped.load());
  EXPECT_EQ(0, MonitorRunning);
  EXPECT_EQ(0, MonitorStopRequest.load());
  SCSI_Done();  // nothing left to join
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
    fixture::FixtureWorld machine;
    fixture::FixtureWorld::Scope machineScope(machine);
    machine.Load(row.machine);
    fixture::FakeHal& hal = fixture::InstallFakeHal(machine);
    hal.cdroms = {{"/org/freedesktop/Hal/devices/none", ""}, {dvd, "/dev/hdc"}, {cd, "/dev/scd0"},
                  {cd + "_0", "/dev/scd0"}, {"/org/freedesktop/Hal/devices/usb", "/dev/sr7"}};
    hal.failing = row.failing;
    SCSI_ResetDiscoveryState();
    SCSI_Init();
    EXPECT_EQ(row.available, libhal_support_is_available());
    Lines udis;
    for (int adapter : row.adapters) {
      DevicesMapHold hold;
      SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(adapter, 0, 0, 0);
      udis.push_back(device ? device->HalUdi.GetString() : "(none)");
    }
    EXPECT_EQ(row.udis, udis);
    if (row.available) {
      CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
      for (const char* path : {"/dev/hdc", "/dev/sg0"})
        OpenedDevicesMap[CBasicString<char>(path)] = new SCSI_RefCountedFileDesc{kavo::os::Open(path, 0), 1, path[5] == 'h'};
    }
    SCSI_BuildRegistry();
    EXPECT_EQ(row.available ? Lines{"Unlock " + dvd} : Lines{}, hal.Sent());
    EXPECT_EQ(0, machine.OpenDescriptorCount());
    SCSI_Done();
    EXPECT_FALSE(libhal_support_is_available());
    EXPECT_EQ(0, hal.outstanding);
  }
}

}  // namespace
