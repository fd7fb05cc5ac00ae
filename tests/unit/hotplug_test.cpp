// Hot-plug: the snapshot parsers on captured texts, and each monitor against
// a machine whose drives come and go between its cycles.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "aspi/srb.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/world.h"

namespace {

std::string DataFile(const std::string& name) {
  std::ifstream file(std::string(KAVO_UNIT_DATA_DIR) + "/" + name);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> ParseProcScsi(const std::string& text) {
  SCSI_ProcScsiDeviceList list;
  SCSI_ParseProcScsiText(text, list);
  std::vector<std::string> described;
  for (CLinuxProcScsiDevice* d : list)
    described.push_back(std::to_string(d->m_nHost) + ":" + std::to_string(d->m_nChannel) + ":" +
                        std::to_string(d->m_nId) + ":" + std::to_string(d->m_nLun) + "[" + d->m_strVendor + "][" +
                        d->m_strModel + "][" + d->m_strRevision + "][" + d->m_strType + "]" +
                        std::to_string(d->m_nAnsiRevision) + (d->IsMarked() ? " marked" : ""));
  SCSI_ClearProcScsiDeviceList(list);
  return described;
}

std::vector<std::string> FirstLine(const std::string& text) { return {SCSI_FirstLine(text).GetString()}; }

TEST(SnapshotParsers, YieldWhatTheCapturedTextsHold) {
  const std::string type = "[CD-ROM                          ]";  // 32 characters, padding kept
  const struct {
    const char* file;
    std::vector<std::string> (*parse)(const std::string&);
    std::vector<std::string> expected;
  } rows[] = {
      {"proc_scsi_aligned.txt", ParseProcScsi,
       {"0:0:0:0[QEMU    ][QEMU CD-ROM     ][2.5+]" + type + "5",
        "12:1:15:7[HL-DT-ST][DVDRAM GH24NSD1 ][LG00]" + type + "26"}},
      {"proc_scsi_cut_short.txt", ParseProcScsi, {"0:0:0:0[QEMU    ][QEMU CD-ROM     ][2.5+]" + type + "5"}},
      {"sysfs_vendor_newline.txt", FirstLine, {"QEMU    "}},
      {"sysfs_model_no_newline.txt", FirstLine, {"QEMU DVD-ROM"}},
  };
  for (const auto& row : rows) EXPECT_EQ(row.expected, row.parse(DataFile(row.file))) << row.file;
}

// What the callbacks heard and how often the registry was rebuilt, in order:
// "+addr" an arrival, "-addr" a removal, "R<n>;" a pause after n rebuilds.
std::mutex logMutex;
std::string eventLog;
void Log(const std::string& text) {
  std::lock_guard<std::mutex> hold(logMutex);
  eventLog += text;
}
void Hex(char sign, unsigned int address) {
  char text[16];
  snprintf(text, sizeof text, "%c%06x;", sign, address);
  Log(text);
}
void Arrived(unsigned int address) { Hex('+', address); }
void Removed(unsigned int address) { Hex('-', address); }

enum class Source { Hal, SysBlock, ProcScsi };

// Drive A is the machine's /dev/sg0 (host 0, target 0: adapter 2 behind two
// IDE adapters); drive B sits on host 254, target 5, so its adapter 256 packs
// as 0.
struct Drive {
  int sg, host, target;
  const char *block, *sysfs, *udi;
};
const Drive kDriveA = {0, 0, 0, "/dev/scd0", "sr0", "/org/freedesktop/Hal/devices/storage_A"};
const Drive kDriveB = {4, 254, 5, "/dev/sr4", "sr4", "/org/freedesktop/Hal/devices/storage_B"};

class Machine {
 public:
  explicit Machine(fixture::FixtureWorld& world) : world_(world) {}
  void Plug(const Drive& drive, bool present) {
    const std::string sysfs = "/sys/block/" + std::string(drive.sysfs) + "/device";
    if (present) {
      world_.AddNode("/dev/sg" + std::to_string(drive.sg), std::make_shared<fixture::AddressedNode>(drive.host, 0, drive.target, 0));
      world_.AddNode(drive.block, std::make_shared<fixture::AddressedNode>(drive.host, 0, drive.target, 0));
      world_.AddFile(sysfs + "/vendor", "QEMU    \n");
      world_.AddFile(sysfs + "/model", "QEMU CD-ROM     \n");
    } else {
      for (const std::string& path : {"/dev/sg" + std::to_string(drive.sg), std::string(drive.block),
                                      sysfs + "/vendor", sysfs + "/model", sysfs, sysfs.substr(0, sysfs.size() - 7)})
        world_.Remove(path);
    }
    (&drive == &kDriveA ? a_ : b_) = present;
    std::string text = "Attached devices:\n";
    for (const Drive* d : {&kDriveA, &kDriveB})
      if (d == &kDriveA ? a_ : b_)
        text += "Host: scsi" + std::to_string(d->host) + " Channel: 00 Id: 0" + std::to_string(d->target) +
                " Lun: 00\n  Vendor: QEMU     Model: QEMU CD-ROM      Rev: 2.5+\n"
                "  Type:   CD-ROM                           ANSI  SCSI revision: 05\n";
    world_.AddFile("/proc/scsi/scsi", text);
  }

 private:
  fixture::FixtureWorld& world_;
  bool a_ = true, b_ = false;
};

// Host-pass opens of /dev/sg0, one per registry build.
int Builds(fixture::FixtureWorld& world) {
  int builds = 0;
  for (const fixture::OpenRecord& open : world.Opens())
    builds += open.path == "/dev/sg0" && (open.flags & O_ACCMODE) == O_RDWR;
  return builds;
}

TEST(Monitor, RebuildsOnceACycleAndTellsRemovalsBeforeArrivals) {
  ASPI_Callbacks both = {Arrived, Removed}, arrivalAgain = {Arrived, nullptr};
  ASPI_putCallbacks(&both);
  ASPI_putCallbacks(&arrivalAgain);
  ASPI_putCallbacks(nullptr);
  for (Source source : {Source::Hal, Source::SysBlock, Source::ProcScsi}) {
    fixture::FixtureWorld world;
    fixture::FixtureWorld::Scope scope(world);
    SCSI_ResetDiscoveryState();
    world.Load("ide_and_scsi");
    Machine machine(world);
    machine.Plug(kDriveA, true);
    if (source == Source::Hal) fixture::InstallFakeHal(world).cdroms = {{kDriveA.udi, kDriveA.block}, {kDriveB.udi, kDriveB.block}};
    if (source == Source::ProcScsi) world.Remove("/sys/block");
    eventLog.clear();
    // After each cycle's first sleep the machine changes: B comes, B goes,
    // then A goes and B comes in one cycle; in the fourth pause, the stop.
    std::atomic<bool> inLastPause(false);
    int buildsSeen = 1;  // SCSI_Init's own
    world.SetSleepHook([&](unsigned long calls) {
      if (calls % 5 != 1) return;
      const int builds = Builds(world);
      Log("R" + std::to_string(builds - buildsSeen) + ";");
      buildsSeen = builds;
      if (calls == 1) machine.Plug(kDriveB, true);
      if (calls == 6) machine.Plug(kDriveB, false);
      if (calls == 11) machine.Plug(kDriveA, false), machine.Plug(kDriveB, true);
      if (calls < 16) return;
      inLastPause = true;
      while (MonitorStopRequest.load() == 0) std::this_thread::yield();
    });
    world.AllowThreads(true);
    SCSI_Init();
    ASSERT_EQ(1, MonitorRunning);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!inLastPause && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_TRUE(inLastPause) << "the monitor never reached its fourth pause";
    SCSI_Done();
    EXPECT_EQ(0, MonitorRunning);
    EXPECT_EQ(16u, world.SleepCalls()) << "the pause ends at the stop request";
    EXPECT_EQ("R0;+000500;+000500;R1;-000500;R1;-020000;+000500;+000500;R1;", eventLog)
        << "source " << static_cast<int>(source);
  }
  SCSI_ResetDiscoveryState();
}

}  // namespace
