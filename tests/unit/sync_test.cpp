// The synchronisation objects across real threads: recursion and ownership,
// timed waits that wake on release, semaphores, events and single locks.
#include "runtime/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
long Since(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// What Lock(0) (or Unlock) answers on another thread; a lock got is given back.
int Elsewhere(CPosixSyncObject& object, bool unlock = false) {
  int result = -1;
  std::thread([&] { result = unlock ? object.Unlock() : object.Lock(0) == 1 ? object.Unlock() : 0; }).join();
  return result;
}

TEST(Sync, MutexRecursionOwnershipAndInitialOwner) {
  CPosixMutex mutex(0), owned(1), free(2);  // only 1 means "owned by the creator"
  const struct {
    char step;  // L lock, U unlock, F unlock on another thread
    int result, elsewhere;
  } rows[] = {{'U', 0, 1}, {'L', 1, 0}, {'L', 1, 0}, {'F', 0, 0}, {'U', 1, 0}, {'U', 1, 1}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.result, row.step == 'L' ? mutex.Lock(0) : row.step == 'U' ? mutex.Unlock() : Elsewhere(mutex, true));
    EXPECT_EQ(row.elsewhere, Elsewhere(mutex)) << &row - rows;
  }
  EXPECT_EQ(0, Elsewhere(owned));
  EXPECT_EQ(1, Elsewhere(free));
  EXPECT_EQ(1, owned.Unlock());
}

TEST(Sync, TimedLockTimesOutWhileHeldAndWakesOnRelease) {
  CPosixMutex mutex(0);
  std::atomic<int> stage(0);
  std::thread holder([&] {
    mutex.Lock(0xFFFFFFFF);
    stage = 1;
    while (stage == 1) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mutex.Unlock();
  });
  while (stage == 0) std::this_thread::yield();
  Clock::time_point start = Clock::now();
  EXPECT_EQ(0, mutex.Lock(300));
  EXPECT_GE(Since(start), 290);
  stage = 2, start = Clock::now();
  EXPECT_EQ(1, mutex.Lock(5000));
  EXPECT_LT(Since(start), 2500) << "the waiter must wake at the release, not at the deadline";
  EXPECT_EQ(1, mutex.Unlock());
  holder.join();
}

// A semaphore's count stays within its maximum; an automatic event lets one
// wait through per set; a manual one stays set and releases every waiter.
TEST(Sync, SemaphoreAndEvents) {
  CPosixSemaphore semaphore(0, 1);
  EXPECT_EQ(0, semaphore.Lock(0));
  EXPECT_EQ(1, semaphore.Unlock());
  EXPECT_EQ(1, semaphore.Unlock()) << "a release at the maximum still reports success";
  EXPECT_EQ(1, semaphore.Lock(0));
  EXPECT_EQ(0, Elsewhere(semaphore));
  CPosixEvent automatic(0, 0), manual(1, 1), gate(0, 1);
  EXPECT_EQ(1, automatic.SetEvent());
  EXPECT_EQ(1, automatic.SetEvent());  // already set: no second unit
  EXPECT_EQ(1, automatic.WaitForEvent(0));
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(0, automatic.WaitForEvent(200));
  EXPECT_GE(Since(start), 190);
  const int manualSteps[] = {manual.WaitForEvent(0), manual.WaitForEvent(0), manual.ResetEvent(),
                             manual.WaitForEvent(0), manual.ResetEvent()};
  EXPECT_EQ((std::vector<int>{1, 1, 1, 0, 0}), std::vector<int>(manualSteps, manualSteps + 5));
  std::atomic<int> through(0);
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { through += gate.WaitForEvent(5000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  gate.SetEvent();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(3, through.load());
}

// A sync object that counts the calls a single lock makes on it.
struct CountingObject : CPosixSyncObject {
  int Lock(unsigned int) override { return ++locks, 1; }
  int Unlock() override { return ++unlocks, result; }
  int locks = 0, unlocks = 0, result = 1;
};

TEST(Sync, SingleLockDestructorReleasesWhatIsStillCounted) {
  CountingObject object;
  CPosixMutex mutex(0);
  {
    CPosixSingleLock hold(&object, 1), held(&mutex, 1);
    hold.Lock(0);
    hold.Lock(0);
    EXPECT_EQ(3, object.locks);
    object.result = 0;
    EXPECT_EQ(0, hold.Unlock());  // a failed release keeps the count
    object.result = 1;
    EXPECT_EQ(0, Elsewhere(mutex));
  }
  EXPECT_EQ(4, object.unlocks);
  EXPECT_EQ(1, Elsewhere(mutex));
}

}  // namespace
