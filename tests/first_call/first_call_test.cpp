// Two threads making the very first ASPI call at once: the second waits
// until the first has built the registry, which is built once. A process of
// its own, since the initialisation happens once per process.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "aspi/srb.h"
#include "tests/fixture/emulated_drive.h"

namespace {

// A generic node whose first open waits until the test lets it through,
// holding the registry build in the middle of its scan.
class GateNode : public fixture::AddressedNode {
 public:
  GateNode() : AddressedNode(0, 0, 0, 0) {}
  int OnOpen(int) override {
    std::unique_lock<std::mutex> hold(mutex_);
    if (opens_++ == 0) {
      changed_.notify_all();
      changed_.wait(hold, [this] { return released_; });
    }
    return 0;
  }
  void WaitUntilEntered() {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [this] { return opens_ > 0; });
  }
  void Release() {
    std::lock_guard<std::mutex> hold(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  bool released_ = false;
  int opens_ = 0;
};

TEST(FirstCall, SecondCallerWaitsForTheRegistryBuild) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  auto gate = std::make_shared<GateNode>();
  world.AddNode("/dev/sg0", gate);
  unsigned int firstResult = 0, secondResult = 0;
  std::thread first([&] { firstResult = GetASPI32SupportInfo(); });
  gate->WaitUntilEntered();
  std::atomic<bool> secondReturned(false);
  std::thread second([&] {
    SRB_HAInquiry inquiry = {};
    inquiry.SRB_Cmd = SC_HA_INQUIRY;
    SendASPI32Command(&inquiry);
    secondResult = GetASPI32SupportInfo();
    secondReturned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(secondReturned) << "the second caller must not see a half-built registry";
  gate->Release();
  first.join();
  second.join();
  EXPECT_EQ(0x101u, firstResult);
  EXPECT_EQ(0x101u, secondResult);
  EXPECT_EQ(1, gate->opens_) << "the registry is built once";
  fixture::RegistryReset();
}

}  // namespace
