// Discovery on machines no kernel here shows, rescans that wait for holds, snapshot parsers, and each
// monitor against drives that come and go.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/fixture/world.h"

namespace {

using Lines = std::vector<std::string>;

// "h02c00t00d00 /dev/sg0 [/dev/scd0] [UDI]" a device, then "2 ata_piix emulated" an adapter.
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

TEST(Discovery, MachinesNumberIdeInterfacesFirstAndScsiHostsAfterThem) {
  for (const auto& machine : fixture::Rows("rows/discovery_machines")) {
    SCOPED_TRACE(machine[0]);
    fixture::FixtureWorld world;
    world.Load(machine[0]);
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
  for (const auto& row : fixture::Rows("rows/kernel_releases"))
    EXPECT_EQ(row[1] == "1", SCSI_IsKernel26Release(row[0].c_str())) << row[0];
}

// A rescan polls until the last hold is gone, not blocking opens; it gives up when the monitor must stop.
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
    EXPECT_TRUE(machine.sleepCalls >= 20 && machine.slept == 500u * machine.sleepCalls) << "500 us a poll";
    kavo::os::Close(fd);
  }
}

// A sysfs file's first line, or each /proc/scsi/scsi record as "h:c:i:l[vendor][model][rev][type]ANSI;".
std::string Parse(const std::string& file) {
  std::ifstream in(std::string(KAVO_UNIT_DATA_DIR) + "/" + file);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (file.compare(0, 5, "sysfs") == 0) return SCSI_FirstLine(text).GetString();
  SCSI_ProcScsiDeviceList list;
  SCSI_ParseProcScsiText(text, list);
  std::string described;
  for (CLinuxProcScsiDevice* d : list)
    described += std::to_string(d->m_nHost) + ":" + std::to_string(d->m_nChannel) + ":" + std::to_string(d->m_nId) +
                 ":" + std::to_string(d->m_nLun) + "[" + d->m_strVendor + "][" + d->m_strModel + "][" +
                 d->m_strRevision + "][" + d->m_strType + "]" + std::to_string(d->m_nAnsiRevision) + ";";
  SCSI_ClearProcScsiDeviceList(list);
  return described;
}

TEST(SnapshotParsers, YieldWhatTheCapturedTextsHold) {
  const std::string cdrom = "[CD-ROM" + std::string(26, ' ') + "]";  // 32 characters, padding kept
  const std::string qemu = "0:0:0:0[QEMU    ][QEMU CD-ROM     ][2.5+]" + cdrom + "5;";
  const struct { const char* file; std::string expected; } rows[] = {
      {"proc_scsi_aligned.txt", qemu + "12:1:15:7[HL-DT-ST][DVDRAM GH24NSD1 ][LG00]" + cdrom + "26;"},
      {"proc_scsi_cut_short.txt", qemu},
      {"sysfs_vendor_newline.txt", "QEMU    "},
  };
  for (const auto& row : rows) EXPECT_EQ(row.expected, Parse(row.file)) << row.file;
}

// In order, "+addr" an arrival, "-addr" a removal, "R;" a cycle's first pause, "B<n>;" a
// registry build after n sleeps; read once the monitor has ended.
std::string eventLog;
template <char sign>
void Note(unsigned int address) {
  char text[16];
  eventLog += std::string(text, snprintf(text, sizeof text, "%c%06x;", sign, address));
}

// Drive A is /dev/sg0 (adapter 2 behind two IDE adapters); B is on host 254, channel 1, target 5, LUN 17:
// adapter 256 packs as 0. A drive that goes loses the nodes every source opens.
void Present(fixture::FixtureWorld& world, const char* drives) {
  for (const char* node : {"/dev/sg0", "/dev/scd0", "/dev/sg4", "/dev/sr4"}) world.Remove(node);
  world.Load(std::string("hotplug/") + drives);
}

TEST(Monitor, RebuildsOnceACycleAndTellsRemovalsBeforeArrivals) {
  ASPI_Callbacks both = {Note<'+'>, Note<'-'>}, arrivalAgain = {Note<'+'>, nullptr};
  ASPI_putCallbacks(&both);
  ASPI_putCallbacks(&arrivalAgain);
  ASPI_putCallbacks(nullptr);
  for (const char* source : {"HAL", "/sys/block", "/proc/scsi/scsi"}) {
    fixture::FixtureWorld world;
    world.Load("ide_and_scsi");
    Present(world, "a");
    if (source[0] == 'H') {
      fixture::FakeHal& hal = fixture::InstallFakeHal(world);
      hal.cdroms = {{"/dev/scd0", "/dev/scd0"}, {"/dev/sr4", "/dev/sr4"}};  // its udi, its node
    }
    if (source[1] == 'p') world.Remove("/sys/block");
    eventLog.clear();
    // At each cycle's first sleep B comes, B goes, A goes as B comes; the fourth waits. A build opens hdc once.
    world.Node("/dev/hdc")->onOpen = [&] { return eventLog += "B" + std::to_string(world.sleepCalls) + ";", 0; };
    world.sleepHook = [&](unsigned long calls) {
      if (calls % 5 != 1) return;
      eventLog += "R;";
      if (calls < 16) return Present(world, calls == 1 ? "ab" : calls == 6 ? "a" : "b");
      while (MonitorStopRequest.load() == 0) std::this_thread::yield();
    };
    world.threadsAllowed = true;
    SCSI_Init();
    for (int waited = 0; waited < 20000 && world.sleepCalls < 16; ++waited) usleep(1000);
    SCSI_Done();
    EXPECT_EQ(16u, world.sleepCalls) << source << ": the pause ends at the stop request";
    const std::string b = source[1] == 'p' ? "000511;" : "000500;";  // only /proc/scsi/scsi tells the LUN
    EXPECT_EQ("B0;R;B5;+" + b + "+" + b + "R;B10;-" + b + "R;B15;-020000;+" + b + "+" + b + "R;", eventLog) << source;
  }
}

}  // namespace
