// Hot-plug: the snapshot parsers on captured texts, and each monitor against
// a machine whose drives come and go between its cycles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

#include "aspi/srb.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/world.h"

namespace {

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

// In order, "+addr" an arrival, "-addr" a removal, "R<n>;" a pause after n registry
// builds; written only on the monitor thread, read after it has ended.
std::string eventLog;
template <char sign>
void Note(unsigned int address) {
  char text[16];
  eventLog += std::string(text, snprintf(text, sizeof text, "%c%06x;", sign, address));
}

// Drive A is the machine's /dev/sg0 (host 0, target 0: adapter 2 behind two
// IDE adapters); drive B sits on host 254, target 5, so its adapter 256 packs
// as 0. A drive that goes loses the nodes that every source opens.
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
    // At each cycle's first sleep B comes, B goes, then A goes and B comes at
    // once; the fourth pause waits for the stop. A build opens /dev/hdc once.
    std::atomic<int> builds(0);
    world.Node("/dev/hdc")->onOpen = [&builds] {
      ++builds;
      return 0;
    };
    world.sleepHook = [&](unsigned long calls) {
      if (calls % 5 != 1) return;
      eventLog += "R" + std::to_string(builds) + ";";
      if (calls < 16) return Present(world, calls == 1 ? "ab" : calls == 6 ? "a" : "b");
      while (MonitorStopRequest.load() == 0) std::this_thread::yield();
    };
    world.threadsAllowed = true;
    SCSI_Init();
    for (int waited = 0; waited < 20000 && world.sleepCalls < 16; ++waited) usleep(1000);
    SCSI_Done();
    EXPECT_EQ(16u, world.sleepCalls) << source << ": the pause ends at the stop request";
    EXPECT_EQ("R1;+000500;+000500;R2;-000500;R3;-020000;+000500;+000500;R4;", eventLog) << source;
  }
}

}  // namespace
