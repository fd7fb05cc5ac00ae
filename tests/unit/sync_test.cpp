// The synchronisation objects across real threads: timed waits that wake on
// release, recursion and ownership, manual- and auto-reset events.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/sync.h"

namespace {

using Clock = std::chrono::steady_clock;

long MillisecondsSince(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Runs body on another thread and waits for it.
template <typename Body>
void OnOtherThread(Body body) {
  std::thread other(body);
  other.join();
}

TEST(PosixMutex, TryLockSeesOwnerAndRecursion) {
  CPosixMutex mutex(0);
  ASSERT_EQ(1, mutex.Lock(0));
  ASSERT_EQ(1, mutex.Lock(0));  // recursive
  OnOtherThread([&] { EXPECT_EQ(0, mutex.Lock(0)); });
  ASSERT_EQ(1, mutex.Unlock());
  OnOtherThread([&] { EXPECT_EQ(0, mutex.Lock(0)) << "one level is still held"; });
  ASSERT_EQ(1, mutex.Unlock());
  OnOtherThread([&] {
    EXPECT_EQ(1, mutex.Lock(0));
    EXPECT_EQ(1, mutex.Unlock());
  });
}

TEST(PosixMutex, UnlockByNonOwnerFails) {
  CPosixMutex mutex(0);
  EXPECT_EQ(0, mutex.Unlock());
  mutex.Lock(0xFFFFFFFF);
  OnOtherThread([&] { EXPECT_EQ(0, mutex.Unlock()); });
  EXPECT_EQ(1, mutex.Unlock());
}

TEST(PosixMutex, InitialOwnerOnlyForOne) {
  CPosixMutex owned(1), free(2);
  OnOtherThread([&] {
    EXPECT_EQ(0, owned.Lock(0));
    EXPECT_EQ(1, free.Lock(0));
    free.Unlock();
  });
  EXPECT_EQ(1, owned.Unlock());
}

TEST(PosixMutex, TimedLockTimesOutWhileHeld) {
  CPosixMutex mutex(0);
  std::atomic<bool> held(false), release(false);
  std::thread holder([&] {
    mutex.Lock(0xFFFFFFFF);
    held = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    mutex.Unlock();
  });
  while (!held) std::this_thread::yield();
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(0, mutex.Lock(300));
  const long waited = MillisecondsSince(start);
  EXPECT_GE(waited, 290);
  EXPECT_LT(waited, 2000);
  release = true;
  holder.join();
}

TEST(PosixMutex, TimedLockWakesOnRelease) {
  CPosixMutex mutex(0);
  std::atomic<bool> held(false);
  std::thread holder([&] {
    mutex.Lock(0xFFFFFFFF);
    held = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mutex.Unlock();
  });
  while (!held) std::this_thread::yield();
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(1, mutex.Lock(5000));
  EXPECT_LT(MillisecondsSince(start), 2500) << "the waiter must wake at the release, not at the deadline";
  EXPECT_EQ(1, mutex.Unlock());
  holder.join();
}

TEST(PosixMutex, ExcludesConcurrentIncrements) {
  CPosixMutex mutex(0);
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        CPosixSingleLock hold(&mutex, 1);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(8000, counter);
}

TEST(PosixSemaphore, CountStaysWithinMaximum) {
  CPosixSemaphore semaphore(0, 1);
  EXPECT_EQ(0, semaphore.Lock(0));
  EXPECT_EQ(1, semaphore.Unlock());
  EXPECT_EQ(1, semaphore.Unlock()) << "a release at the maximum still reports success";
  EXPECT_EQ(1, semaphore.Lock(0));
  EXPECT_EQ(0, semaphore.Lock(0));
}

TEST(PosixSemaphore, ReleaseFromAnotherThreadWakesTimedWaiter) {
  CPosixSemaphore semaphore(0, 3);
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    semaphore.Unlock();
  });
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(1, semaphore.Lock(5000));
  EXPECT_LT(MillisecondsSince(start), 2500);
  releaser.join();
  EXPECT_EQ(0, semaphore.Lock(50));
}

TEST(PosixEvent, AutoResetLetsOneWaitThroughPerSet) {
  CPosixEvent event(0, 0);
  EXPECT_EQ(0, event.WaitForEvent(0));
  EXPECT_EQ(1, event.SetEvent());
  EXPECT_EQ(1, event.SetEvent());  // already set: no second unit
  EXPECT_EQ(1, event.WaitForEvent(0));
  EXPECT_EQ(0, event.WaitForEvent(0));
}

TEST(PosixEvent, ManualResetStaysSetUntilReset) {
  CPosixEvent event(1, 1);
  EXPECT_EQ(1, event.WaitForEvent(0));
  EXPECT_EQ(1, event.WaitForEvent(0));
  EXPECT_EQ(1, event.ResetEvent());
  EXPECT_EQ(0, event.WaitForEvent(0));
  EXPECT_EQ(0, event.ResetEvent());
}

TEST(PosixEvent, ManualResetReleasesEveryWaiter) {
  CPosixEvent event(0, 1);
  std::atomic<int> through(0);
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i)
    waiters.emplace_back([&] {
      if (event.WaitForEvent(0xFFFFFFFF)) ++through;
    });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  event.SetEvent();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(3, through.load());
}

TEST(PosixEvent, TimedWaitEndsWithoutSignal) {
  CPosixEvent event(0, 0);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(0, event.WaitForEvent(200));
  EXPECT_GE(MillisecondsSince(start), 190);
}

// A sync object that counts the calls a single lock makes on it.
class CountingObject : public CPosixSyncObject {
 public:
  int Lock(unsigned int) override { return ++locks, 1; }
  int Unlock() override { return ++unlocks, result; }
  int locks = 0, unlocks = 0, result = 1;
};

TEST(PosixSingleLock, DestructorReleasesWhatIsStillCounted) {
  CountingObject object;
  {
    CPosixSingleLock hold(&object, 1);
    hold.Lock(0);
    hold.Lock(0);
    EXPECT_EQ(3, object.locks);
  }
  EXPECT_EQ(3, object.unlocks);
}

TEST(PosixSingleLock, FailedUnlockKeepsTheCount) {
  CountingObject object;
  {
    CPosixSingleLock hold(&object, 0);
    hold.Lock(0);
    object.result = 0;
    EXPECT_EQ(0, hold.Unlock());
    object.result = 1;
  }
  EXPECT_EQ(2, object.unlocks) << "the failed release and the one the destructor still owes";
}

TEST(PosixSingleLock, HoldsRealMutexUntilDestroyed) {
  CPosixMutex mutex(0);
  {
    CPosixSingleLock hold(&mutex, 1);
    OnOtherThread([&] { EXPECT_EQ(0, mutex.Lock(0)); });
  }
  OnOtherThread([&] {
    EXPECT_EQ(1, mutex.Lock(0));
    mutex.Unlock();
  });
}

}  // namespace
