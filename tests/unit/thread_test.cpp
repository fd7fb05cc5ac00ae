// Threads and per-device workers on real threads, workers on an emulated drive.
#include "runtime/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "aspi/worker_internal.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/unit/watchdog.h"

namespace {

using std::chrono::milliseconds;

struct Probe {
  unsigned int endWith = 0;  // 0: return 7, else EndThread(endWith)
  Probe* inner = nullptr;    // started and destroyed from within
  std::atomic<int> entered{0}, finished{0};
  CThread *self = nullptr, *parent = nullptr;
};

unsigned int RunProbe(void* argument) {
  Probe* probe = static_cast<Probe*>(argument);
  probe->entered = 1;
  probe->self = CThread::GetThread();
  probe->parent = probe->self->GetParentThread();
  if (probe->inner != nullptr) delete CThreadingBeginThread(RunProbe, probe->inner, 0, 0, 0);
  std::this_thread::sleep_for(milliseconds(100));
  probe->finished = 1;
  if (probe->endWith != 0) CThread::EndThread(probe->endWith);
  return 7;
}

TEST(Thread, SuspendedStartIsReleasedOnlyByItsCreator) {
  const struct { const char* resumer; bool creator; } rows[] = {{"creator", true}, {"another thread", false}};
  for (const auto& row : rows) {
    Probe probe;
    CThread* thread = CThreadingBeginThread(RunProbe, &probe, 0, 0, 1);
    int resumed = -1;
    if (!row.creator) std::thread([&] { resumed = thread->ResumeThread(); }).join();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(0, probe.entered) << row.resumer;  // not resumed yet, or by a stranger
    if (row.creator) resumed = thread->ResumeThread();
    EXPECT_EQ(0, resumed) << row.resumer;
    thread->ResumeThread();  // releases the stranger's row
    delete thread;
    EXPECT_EQ(1, probe.entered) << row.resumer;
  }
}

TEST(Thread, ExitCodeOwnObjectParentAndTheWaitOnDestruction) {
  EXPECT_EQ(nullptr, CThread::GetThread());
  const struct { const char* what; unsigned int endWith; bool nested, destroyAtOnce; unsigned int exitCode; } rows[] = {
      {"returns 7", 0, false, false, 0}, {"EndThread(5)", 5, false, false, 5}, {"EndThread(1)", 1, false, false, 1},
      {"starts one of its own", 0, true, false, 0}, {"destroyed while running", 0, false, true, 1}};
  for (const auto& row : rows) {
    Probe inner, probe{row.endWith, row.nested ? &inner : nullptr};
    CThread* thread = CThreadingBeginThread(RunProbe, &probe, 0, 0, 0);
    unsigned int code = 0;
    EXPECT_TRUE(thread->GetExitCodeThread(&code) == 1 && code == 1) << row.what << ": still running";
    EXPECT_TRUE(FinishesWithin(milliseconds(5000), [&] {
      while (!row.destroyAtOnce && (!probe.finished || (row.exitCode != 1 && code == 1)))
        thread->GetExitCodeThread(&code);
      delete thread;
    })) << row.what;
    EXPECT_EQ(row.exitCode, code) << row.what;
    EXPECT_TRUE(probe.finished && probe.self == thread && probe.parent == nullptr) << row.what;
    EXPECT_EQ(row.nested ? thread : nullptr, inner.parent) << row.what;
  }
  EXPECT_TRUE(FinishesWithin(milliseconds(2000), [] { delete new CPosixThread; })) << "a thread never created";
}

// Completions of queued blocks: which block, on which thread. The last one
// stops the worker the way an application can: by ending the thread.
std::vector<std::pair<SRB_ExecSCSICmd*, CThread*>> posted;
void Record(SRB_ExecSCSICmd* srb) { posted.push_back({srb, CThread::GetThread()}); }
void RecordAndStop(SRB_ExecSCSICmd* srb) { Record(srb), CThread::EndThread(0); }

SRB_ExecSCSICmd TestUnitReady(unsigned char target, void (*post)(SRB_ExecSCSICmd*) = nullptr) {
  SRB_ExecSCSICmd srb = {};
  srb.SRB_Target = target, srb.SRB_Flags = SRB_POSTING, srb.SRB_CDBLen = 6;
  srb.SRB_PostProc = reinterpret_cast<void*>(post);
  return srb;
}

TEST(Worker, OneRecordPerDeviceRunsItsQueueInOrderOnItsOwnThread) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  fixture::RegistryReset registry;
  std::shared_ptr<fixture::SgNode> drive = fixture::PlaceSgDrive(world, "/dev/sg0", 0, 0, 1, 0);
  fixture::RegisterTestDevice(0, 0, 1, 0, "/dev/sg0");
  // Each device opened again while its first open is under way, as by a second thread.
  const struct { unsigned char target; bool exists; } rows[] = {{1, true}, {5, false}};
  for (const auto& row : rows) {
    SRB_ExecSCSICmd srb = TestUnitReady(row.target);
    ASPI_DEVICE_INFO* meanwhile = nullptr;
    bool again = true;
    drive->onOpen = [&] { if (again) again = false, meanwhile = ASPI_OpenDevice(&srb); };
    ASPI_DEVICE_INFO* opened = ASPI_OpenDevice(&srb);
    drive->onOpen = nullptr;
    EXPECT_TRUE(opened == meanwhile && opened == ASPI_OpenDevice(&srb) && row.exists == (opened != nullptr));
    EXPECT_TRUE(AspiDeviceList.size() == 1 && world.OpenDescriptorCount() == 1) << int(row.target);
  }
  ASSERT_EQ(1u, AspiDeviceList.size());
  ASPI_DEVICE_INFO* record = AspiDeviceList[0];
  SRB_ExecSCSICmd blocks[] = {TestUnitReady(1, Record), TestUnitReady(1, Record), TestUnitReady(1, RecordAndStop)};
  CThread* worker = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
  record->QueueLock->Lock(0xFFFFFFFF);
  record->Queue->push_back(nullptr);
  for (SRB_ExecSCSICmd& srb : blocks) record->Queue->push_back(&srb);
  record->QueueLock->Unlock();
  ASSERT_TRUE(FinishesWithin(milliseconds(10000), [worker] { delete worker; }));
  ASSERT_EQ(3u, posted.size());
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(posted[i] == std::make_pair(&blocks[i], worker) && blocks[i].SRB_Status == SS_COMP) << i;
  EXPECT_EQ(1, world.OpenDescriptorCount()) << "the record's own descriptor stays open";
}

}  // namespace
