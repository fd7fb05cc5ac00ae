// Two threads making the very first ASPI call at once: the second waits
// until the first has built the registry, which is built once. A process of
// its own, since the initialisation happens once per process.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "aspi/srb.h"
#include "tests/fixture/emulated_drive.h"

namespace {

TEST(FirstCall, SecondCallerWaitsForTheRegistryBuild) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  auto node = fixture::PlaceSgDrive(world, "/dev/sg0", 0, 0, 0, 0);
  std::promise<void> entered, released;
  std::shared_future<void> release = released.get_future().share();
  std::atomic<int> opens(0);
  node->onOpen = [&] {  // the build's first open waits in the middle of its scan
    if (opens++ == 0) {
      entered.set_value();
      release.wait();
    }
  };
  unsigned int firstResult = 0, secondResult = 0;
  std::thread first([&] { firstResult = GetASPI32SupportInfo(); });
  entered.get_future().wait();
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
  released.set_value();
  first.join();
  second.join();
  EXPECT_EQ(0x101u, firstResult);
  EXPECT_EQ(0x101u, secondResult);
  EXPECT_EQ(1, opens.load()) << "the registry is built once";
  fixture::RegistryReset();
}

}  // namespace
