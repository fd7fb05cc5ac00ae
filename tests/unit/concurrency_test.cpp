// Races caught every run: a drive's exchange, a node's open or the
// monitor's pause starts the competing work at the moment the race needs.
// tests/run-all also runs these under a race detector (drd).
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "aspi/execute_internal.h"
#include "device/registry_internal.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using std::chrono::milliseconds;

// Work on a thread started ahead and handed over through atomics only, so a
// race detector sees it as concurrent with the thread that starts it.
class Competitor {
 public:
  explicit Competitor(std::function<void()> work)
      : thread_([this, work] {
          while (step_ == 0) std::this_thread::yield();
          if (step_ == 1) work();
          step_ = 2;
        }) {}
  ~Competitor() {
    int idle = 0;
    step_.compare_exchange_strong(idle, 3);  // never started: it ends without working
    thread_.join();
  }
  // Starts the work (once) and waits for its end, at most patience; true when it ended.
  bool Start(milliseconds patience = milliseconds(20000)) {
    int idle = 0;
    step_.compare_exchange_strong(idle, 1);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (step_ != 2 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return step_ == 2;
  }

 private:
  std::atomic<int> step_{0};  // 0 waiting, 1 working, 2 ended, 3 cancelled
  std::thread thread_;
};

// The "drives" machine: sg1 at target 4 of adapter 3 (a real host), sg0 at adapter 1 (emulated).
TEST(Concurrency, InquiryKeepsTheHostKindItsDeviceWasFoundOn) {
  const struct { unsigned char adapter, target; const char* node; unsigned char version; } rows[] = {
      {3, 4, "/dev/sg1", 0x05},
      {1, 0, "/dev/sg0", 0x00},
  };
  for (const auto& row : rows) {
    fixture::FixtureWorld world;
    fixture::BuildRegistry(world, "drives");
    // The drive leaves and the registry is rebuilt while the INQUIRY is out.
    Competitor rebuild([&] {
      world.Remove(row.node);
      SCSI_BuildRegistry();
    });
    fixture::DriveAt(world, row.node).onExchange = [&] { rebuild.Start(); };
    unsigned char data[36] = {};
    SRB_ExecSCSICmd srb = {};
    srb.SRB_HaId = row.adapter, srb.SRB_Target = row.target, srb.SRB_Flags = SRB_DIR_IN;
    srb.SRB_BufLen = sizeof data, srb.SRB_BufPointer = data, srb.SRB_CDBLen = 6;
    srb.CDBByte[0] = 0x12, srb.CDBByte[4] = sizeof data;
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(SS_COMP, srb.SRB_Status) << row.node;
    EXPECT_EQ(row.version, data[2]) << row.node;
  }
}

// Read while the SCSI pass opens sg1, after sg0 (adapter 1 behind one IDE
// adapter) is in: partial counts, and unordered with the build's writes.
TEST(Concurrency, AdapterCountsReadDuringABuild) {
  fixture::FixtureWorld world;
  world.Load("drives");
  IsKernel26 = 1;
  std::vector<int> seen;
  {  // seen is read after the reader's thread is joined
    Competitor reader([&] { seen = {ASPI_GetNumControllers(), IsIDEAdapter(0), IsIDEAdapter(1)}; });
    fixture::DriveAt(world, "/dev/sg1").onOpen = [&] { return reader.Start() ? 0 : EIO; };
    SCSI_BuildRegistry();
  }
  EXPECT_EQ((std::vector<int>{2, 1, 0}), seen);
}

// Two more SCSI_Done calls while the first is stopping the monitor (started
// from its pause, at the stop request), then one more: all return within a
// time limit of their own.
TEST(Concurrency, ConcurrentAndRepeatedDoneAllReturn) {
  fixture::FixtureWorld world;
  world.Load("drives");
  std::atomic<int> returned(0);
  auto done = [&returned] {
    SCSI_Done();
    ++returned;
  };
  Competitor second(done), third(done);
  world.sleepHook = [&](unsigned long calls) {
    if (calls != 1) return;
    while (MonitorStopRequest.load() == 0) std::this_thread::yield();
    second.Start(milliseconds(200));
    third.Start(milliseconds(200));
  };
  world.threadsAllowed = true;
  SCSI_Init();
  std::thread first(done);
  for (int waited = 0; waited < 1000 && returned < 3; ++waited) std::this_thread::sleep_for(milliseconds(10));
  if (returned != 3) {  // the stuck threads cannot be ended: the process is
    fprintf(stderr, "%d of 3 concurrent SCSI_Done calls returned within 10 s\n", returned.load());
    _exit(1);
  }
  first.join();
  done();
  EXPECT_EQ(4, returned.load());
}

// A monitor that cannot start (the world refuses threads) leaves no first
// snapshot behind: the heap's bytes in use end where they began (after a
// round to warm up), where a kept snapshot would hold its records.
TEST(Concurrency, FirstSnapshotFreedWhenTheMonitorCannotStart) {
  for (const char* source : {"/sys/block", "/proc/scsi/scsi"}) {
    fixture::FixtureWorld world;
    world.Load("ide_and_scsi");
    world.Load("hotplug/a");
    if (source[1] == 'p') world.Remove("/sys/block");
    size_t before = 0;
    for (int round = 0; round < 2; ++round) {
      SCSI_ClearSysBlockDeviceList(SysBlockDeviceList);
      SCSI_ClearProcScsiDeviceList(ProcScsiDeviceList);
      before = mallinfo2().uordblks;
      SCSI_Init();
      SCSI_ResetDiscoveryState();
    }
    EXPECT_EQ(before, mallinfo2().uordblks) << source;
  }
}

}  // namespace
