// The synchronisation objects and threads: held start, exit code, own object, parent, wait on destruction.
#include "runtime/sync.h"
#include "runtime/thread.h"
#include "tests/fixture/world.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// What Lock(0) (or Unlock) answers on another thread; a lock got is given back.
int Elsewhere(CPosixSyncObject& object, bool unlock = false) {
  int result = -1;
  std::thread([&] { result = unlock ? object.Unlock() : object.Lock(0) == 1 ? object.Unlock() : 0; }).join();
  return result;
}

// A mutex counts its owner's recursion, refuses others (only 1 makes it the creator's); a semaphore keeps its
// maximum; an automatic event lets one wait through per set, a manual one stays set.
TEST(Sync, StepsOfEachObject) {
  CPosixMutex mutex(0), owned(1), notOwned(2);
  CPosixSemaphore semaphore(0, 1);
  CPosixEvent automatic(0, 0), manual(1, 1);
  const std::vector<int> steps = {
      mutex.Unlock(),           Elsewhere(mutex),         mutex.Lock(0),           Elsewhere(mutex),
      mutex.Lock(0),            Elsewhere(mutex, true),   mutex.Unlock(),          Elsewhere(mutex),
      mutex.Unlock(),           Elsewhere(mutex),         Elsewhere(owned),        owned.Unlock(),
      semaphore.Lock(0),        semaphore.Unlock(),       semaphore.Unlock(),      semaphore.Lock(0),
      semaphore.Lock(0),        automatic.SetEvent(),     automatic.SetEvent(),    automatic.WaitForEvent(0),
      automatic.WaitForEvent(0), manual.WaitForEvent(0),  manual.WaitForEvent(0),  manual.ResetEvent(),
      manual.WaitForEvent(0),   Elsewhere(notOwned)};
  EXPECT_EQ((std::vector<int>{0, 1, 1, 0, 1, 0, 1, 0, 1, 1, 0, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0, 1}), steps);
}

using std::chrono::milliseconds;

// Each timed wait of its rows ends with 0 at its deadline on the seam's clock, not sooner,
// and long before the release 2 s on, which a wait a thousand times too long meets.
TEST(Sync, TimedWaitsEndAtTheirDeadline) {
  fixture::FixtureWorld world;
  CPosixMutex mutex(0);
  CPosixSemaphore semaphore(0, 1);
  CPosixEvent event(0, 0);
  std::atomic<bool> done(false);
  std::thread holder([&] {
    mutex.Lock(0xFFFFFFFF);
    for (int waited = 0; waited < 2000 && !done; ++waited) std::this_thread::sleep_for(milliseconds(1));
    mutex.Unlock(), semaphore.Unlock(), event.SetEvent();
  });
  while (mutex.Lock(0) == 1) mutex.Unlock();
  for (const auto& row : fixture::Rows("rows/timed_waits")) {
    CPosixSyncObject* object = &semaphore;
    if (row[0] != "semaphore") object = row[0] == "mutex" ? static_cast<CPosixSyncObject*>(&mutex) : &event;
    world.clockShift = fixture::Number(row[2]), world.clockMicroseconds = static_cast<int>(fixture::Number(row[3]));
    const auto start = std::chrono::steady_clock::now();
    const std::string what = row[0] + " " + row[1];
    EXPECT_EQ(0, object->Lock(static_cast<unsigned int>(fixture::Number(row[1])))) << what;
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(fixture::Number(row[4]))) << what;
  }
  done = true;
  EXPECT_TRUE(mutex.Lock(3000) == 1 && mutex.Unlock() == 1) << "the holder's release wakes a timed wait";
  holder.join();
}

struct Probe {
  unsigned int endWith = 0;  // 0: return 7, else EndThread(endWith)
  Probe* inner = nullptr;    // started and destroyed from within
  std::atomic<CThread*> self{nullptr};
  CThread* parent = nullptr;
  std::atomic<int> stage{0};  // 1 its function is done, 2 its thread's exit began, 3 that exit is done
  unsigned int ids[2] = {0, 0};  // GetCurrentThreadId at its start and its end
};

// The last step of a thread's exit, after EndThread: a thread-local's destructor, 50 ms long.
struct LastStep {
  Probe* probe = nullptr;
  ~LastStep() { probe->stage = 2, std::this_thread::sleep_for(milliseconds(50)), probe->stage = 3; }
};

unsigned int RunProbe(void* argument) {
  Probe* probe = static_cast<Probe*>(argument);
  thread_local LastStep last;
  last.probe = probe;
  probe->ids[0] = GetCurrentThreadId();
#if defined(__i386__)
  EXPECT_EQ(static_cast<unsigned int>(pthread_self()), probe->ids[0]) << "on 32-bit x86 the id is pthread_self()";
#endif
  probe->self = CThread::GetThread();
  probe->parent = probe->self.load()->GetParentThread();
  if (probe->inner != nullptr) delete CThreadingBeginThread(RunProbe, probe->inner, 0, 0, 0);
  std::this_thread::sleep_for(milliseconds(100));
  probe->ids[1] = GetCurrentThreadId();
  probe->stage = 1;
  if (probe->endWith != 0) CThread::EndThread(probe->endWith);
  return 7;
}

// Once its thread's exit has begun, the exit code comes only when the thread has ended (joined),
// also a code of 1, the value that tells a running thread. A thread's id is its own.
TEST(Thread, HeldStartExitCodeOwnObjectParentIdAndTheWaitOnDestruction) {
  EXPECT_EQ(nullptr, CThread::GetThread());
  const unsigned int mine = GetCurrentThreadId();
  enum { kPlain, kNested, kHeld, kDestroyedAtOnce };
  const struct { const char* what; int how; unsigned int endWith; } rows[] = {
      {"returns 7", kPlain, 0},         {"EndThread(5)", kPlain, 5},          {"EndThread(1)", kPlain, 1},
      {"started held", kHeld, 0},       {"starts one of its own", kNested, 0},
      {"destroyed while running", kDestroyedAtOnce, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Probe inner, probe{row.endWith, row.how == kNested ? &inner : nullptr};
    CThread* thread = CThreadingBeginThread(RunProbe, &probe, 0, 0, row.how == kHeld ? 1 : 2);
    if (row.how == kHeld) std::this_thread::sleep_for(milliseconds(100));
    EXPECT_TRUE(row.how != kHeld || (probe.self == nullptr && thread->ResumeThread() == 0)) << "held until resumed";
    unsigned int code = 0;
    EXPECT_TRUE(thread->GetExitCodeThread(&code) == 1 && code == 1 && thread->SetThreadPriority(3) == 1);
    if (row.how != kDestroyedAtOnce) {
      while (probe.stage < 2) std::this_thread::yield();
      thread->GetExitCodeThread(&code);
      EXPECT_EQ(3, probe.stage.load()) << "the exit code came before the thread's end";
    }
    delete thread;  // waits for a running thread
    EXPECT_EQ(row.how == kDestroyedAtOnce ? 1 : row.endWith, code);
    EXPECT_TRUE(probe.stage == 3 && probe.self == thread && probe.parent == nullptr);
    EXPECT_EQ(row.how == kNested ? thread : nullptr, inner.parent);
    EXPECT_EQ(probe.ids[0], probe.ids[1]);
    EXPECT_NE(mine, probe.ids[0]);
  }
  EXPECT_EQ(mine, GetCurrentThreadId());
}

}  // namespace
