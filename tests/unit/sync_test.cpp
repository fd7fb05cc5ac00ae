// The synchronisation objects across real threads: timed waits that wake on
// release, recursion and ownership, manual- and auto-reset events.
#include "runtime/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long MillisecondsSince(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// What Lock(0) answers on another thread (released again when it got it).
int TryLockElsewhere(CPosixSyncObject& object) {
  int result = -1;
  std::thread([&] {
    result = object.Lock(0);
    if (result == 1) object.Unlock();
  }).join();
  return result;
}

TEST(PosixMutex, RecursionOwnershipAndInitialOwner) {
  CPosixMutex mutex(0);
  EXPECT_EQ(0, mutex.Unlock()) << "not held";
  ASSERT_EQ(1, mutex.Lock(0));
  ASSERT_EQ(1, mutex.Lock(0));
  EXPECT_EQ(0, TryLockElsewhere(mutex));
  int foreignUnlock = -1;
  std::thread([&] { foreignUnlock = mutex.Unlock(); }).join();
  EXPECT_EQ(0, foreignUnlock);
  ASSERT_EQ(1, mutex.Unlock());
  EXPECT_EQ(0, TryLockElsewhere(mutex)) << "one level is still held";
  ASSERT_EQ(1, mutex.Unlock());
  EXPECT_EQ(1, TryLockElsewhere(mutex));

  CPosixMutex owned(1), free(2);  // only 1 means "owned by the creator"
  EXPECT_EQ(0, TryLockElsewhere(owned));
  EXPECT_EQ(1, TryLockElsewhere(free));
  EXPECT_EQ(1, owned.Unlock());
}

TEST(PosixMutex, TimedLockTimesOutWhileHeldAndWakesOnRelease) {
  CPosixMutex mutex(0);
  std::atomic<bool> held(false), release(false);
  std::thread holder([&] {
    mutex.Lock(0xFFFFFFFF);
    held = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mutex.Unlock();
  });
  while (!held) std::this_thread::yield();
  Clock::time_point start = Clock::now();
  EXPECT_EQ(0, mutex.Lock(300));
  EXPECT_GE(MillisecondsSince(start), 290);
  release = true;
  start = Clock::now();
  EXPECT_EQ(1, mutex.Lock(5000));
  EXPECT_LT(MillisecondsSince(start), 2500) << "the waiter must wake at the release, not at the deadline";
  EXPECT_EQ(1, mutex.Unlock());
  holder.join();
}

TEST(PosixSemaphore, CountStaysWithinMaximum) {
  CPosixSemaphore semaphore(0, 1);
  EXPECT_EQ(0, semaphore.Lock(0));
  EXPECT_EQ(1, semaphore.Unlock());
  EXPECT_EQ(1, semaphore.Unlock()) << "a release at the maximum still reports success";
  EXPECT_EQ(1, semaphore.Lock(0));
  EXPECT_EQ(0, TryLockElsewhere(semaphore));
}

TEST(PosixEvent, AutoResetLetsOneWaitThroughPerSet) {
  CPosixEvent event(0, 0);
  EXPECT_EQ(1, event.SetEvent());
  EXPECT_EQ(1, event.SetEvent());  // already set: no second unit
  EXPECT_EQ(1, event.WaitForEvent(0));
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(0, event.WaitForEvent(200));
  EXPECT_GE(MillisecondsSince(start), 190);
}

TEST(PosixEvent, ManualResetStaysSetAndReleasesEveryWaiter) {
  CPosixEvent initiallySet(1, 1);
  EXPECT_EQ(1, initiallySet.WaitForEvent(0));
  EXPECT_EQ(1, initiallySet.WaitForEvent(0));
  EXPECT_EQ(1, initiallySet.ResetEvent());
  EXPECT_EQ(0, initiallySet.WaitForEvent(0));
  EXPECT_EQ(0, initiallySet.ResetEvent());

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
    object.result = 0;
    EXPECT_EQ(0, hold.Unlock());  // a failed release keeps the count
    object.result = 1;
  }
  EXPECT_EQ(4, object.unlocks);
  CPosixMutex mutex(0);
  {
    CPosixSingleLock hold(&mutex, 1);
    EXPECT_EQ(0, TryLockElsewhere(mutex));
  }
  EXPECT_EQ(1, TryLockElsewhere(mutex));
}

}  // namespace
