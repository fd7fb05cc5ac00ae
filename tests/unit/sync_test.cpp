// The synchronisation objects: recursion and ownership across threads,
// semaphore counts, and what automatic and manual events let through.
#include "runtime/sync.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// What Lock(0) (or Unlock) answers on another thread; a lock got is given back.
int Elsewhere(CPosixSyncObject& object, bool unlock = false) {
  int result = -1;
  std::thread([&] { result = unlock ? object.Unlock() : object.Lock(0) == 1 ? object.Unlock() : 0; }).join();
  return result;
}

TEST(Sync, MutexRecursionOwnershipAndInitialOwner) {
  CPosixMutex mutex(0), owned(1);  // only 1 means "owned by the creator"
  const struct {
    char step;  // L lock, U unlock, F unlock on another thread
    int result, elsewhere;
  } rows[] = {{'U', 0, 1}, {'L', 1, 0}, {'L', 1, 0}, {'F', 0, 0}, {'U', 1, 0}, {'U', 1, 1}};
  for (const auto& row : rows) {
    const int result = row.step == 'L' ? mutex.Lock(0) : row.step == 'U' ? mutex.Unlock() : Elsewhere(mutex, true);
    EXPECT_EQ(row.result, result);
    EXPECT_EQ(row.elsewhere, Elsewhere(mutex)) << &row - rows;
  }
  EXPECT_EQ(0, Elsewhere(owned));
  EXPECT_EQ(1, owned.Unlock());
}

// Each step's result in order: a semaphore stays within its maximum; an
// automatic event lets one wait through per set; a manual one stays set.
TEST(Sync, SemaphoreAndEventSteps) {
  CPosixSemaphore semaphore(0, 1);
  CPosixEvent automatic(0, 0), manual(1, 1);
  const std::vector<int> steps = {semaphore.Lock(0),       semaphore.Unlock(),      semaphore.Unlock(),
                                  semaphore.Lock(0),       semaphore.Lock(0),       automatic.SetEvent(),
                                  automatic.SetEvent(),    automatic.WaitForEvent(0), automatic.WaitForEvent(0),
                                  manual.WaitForEvent(0),  manual.WaitForEvent(0),  manual.ResetEvent(),
                                  manual.WaitForEvent(0)};
  EXPECT_EQ((std::vector<int>{0, 1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0}), steps);
}

}  // namespace
