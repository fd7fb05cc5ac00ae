// Races caught every run: an exchange, an open or a pause starts the competing work at the moment the
// race needs. Under drd (tests/run-all) the unordered adapter counts show too.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "aspi/execute_internal.h"
#include "device/registry.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "tests/fixture/emulated_drive.h"

namespace {

// Work on a thread started ahead, handed over through atomics only so a race detector sees it as
// concurrent; Start waits at most patience (ms) for its end.
struct Competitor {
  explicit Competitor(std::function<void()> work)
      : thread([this, work] {
          while (step == 0) std::this_thread::yield();
          if (step == 1) work();
          step = 2;
        }) {}
  ~Competitor() { Begin(3), thread.join(); }  // 3: never started, ends without working
  void Begin(int how) { int idle = 0; step.compare_exchange_strong(idle, how); }
  bool Start(int patience = 20000) {
    Begin(1);
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience);
         step != 2 && std::chrono::steady_clock::now() < end;)
      std::this_thread::yield();
    return step == 2;
  }
  std::atomic<int> step{0};
  std::thread thread;
};

// "drives": sg1 is target 4 of adapter 3, a real host. It leaves and the registry is
// rebuilt while its INQUIRY is out; the version stays as the drive sent it.
TEST(Concurrency, InquiryKeepsTheHostKindItsDeviceWasFoundOn) {
  fixture::FixtureWorld world;
  fixture::BuildRegistry(world, "drives");
  Competitor rebuild([&] { world.Remove("/dev/sg1"), SCSI_BuildRegistry(); });
  fixture::DriveAt(world, "/dev/sg1").onExchange = [&] { rebuild.Start(); };
  unsigned char data[36] = {};
  SRB_ExecSCSICmd srb = {};
  srb.SRB_HaId = 3, srb.SRB_Target = 4, srb.SRB_Flags = SRB_DIR_IN, srb.SRB_BufLen = 36, srb.SRB_BufPointer = data;
  srb.SRB_CDBLen = 6, srb.CDBByte[0] = 0x12, srb.CDBByte[4] = 36;
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(0x15, data[2]);
}

// Read while the SCSI pass opens sg1, after sg0 (adapter 1 behind one IDE adapter) is in.
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

// A forked child's SCSI_Done stops no monitor and returns at once; the parent still stops its own. Two
// more SCSI_Done calls while the first stops it return only once it has ended. All within 10 s.
TEST(Concurrency, DoneAfterAForkAndConcurrentDonesReturnOnceTheMonitorEnded) {
  fixture::FixtureWorld world;
  world.Load("drives");
  std::atomic<int> returned(0);
  auto done = [&returned] { SCSI_Done(), ++returned; };
  Competitor second(done), third(done);
  int early = -1;  // SCSI_Done calls that returned while the monitor was still in its pause
  world.sleepHook = [&](unsigned long calls) {
    while (calls == 1 && MonitorStopRequest.load() == 0) std::this_thread::yield();
    if (calls == 1) early = second.Start(200) + third.Start(200);
  };
  world.threadsAllowed = true;
  SCSI_Init();
  while (world.sleepCalls == 0) std::this_thread::yield();  // the monitor waits in its pause
  const pid_t child = fork();
  if (child == 0) alarm(10), SCSI_Done(), _exit(0);
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status) << "the child's SCSI_Done returned";
  std::thread first(done);
  for (int waited = 0; waited < 1000 && returned < 3; ++waited) usleep(10000);
  if (returned != 3) fprintf(stderr, "only %d of 3 SCSI_Done calls returned\n", returned.load()), _exit(1);
  first.join();
  EXPECT_EQ(0, early);
  done();
}

// A monitor that cannot start (the world refuses threads, leaving this thread's id in the
// handle) keeps no first snapshot of drive A, and SCSI_Done elsewhere joins nothing.
TEST(Concurrency, MonitorThatCannotStartKeepsNoSnapshotAndIsNotJoined) {
  fixture::FixtureWorld world;
  world.Load("ide_and_scsi"), world.Load("hotplug/a");
  SCSI_Init();
  EXPECT_TRUE(SysBlockDeviceList.empty());
  Competitor done([] { SCSI_Done(); });
  if (!done.Start(5000)) fprintf(stderr, "SCSI_Done joined a monitor that never started\n"), _exit(1);
}

}  // namespace
