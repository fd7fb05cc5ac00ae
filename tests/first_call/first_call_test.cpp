// Two threads making the first ASPI call at once: the registry is built once, before either returns. A
// process of its own: initialisation happens once per process.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "aspi/srb.h"
#include "tests/fixture/emulated_drive.h"

namespace {

TEST(FirstCall, SecondCallerWaitsForTheRegistryBuild) {
  fixture::FixtureWorld world;
  world.Load("one_generic_drive");
  std::atomic<int> opens(0), buildStep(0);  // 1: the build waits in its first open, 2: it may go on
  fixture::DriveAt(world, "/dev/sg0").onOpen = [&] {
    if (opens++ == 0) buildStep = 1;
    while (buildStep == 1) std::this_thread::yield();
    return 0;
  };
  std::atomic<unsigned int> firstResult(0), secondResult(0);
  std::thread first([&] { firstResult = GetASPI32SupportInfo(); });
  while (buildStep != 1) std::this_thread::yield();
  std::thread second([&] { secondResult = GetASPI32SupportInfo(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(0u, secondResult.load()) << "the second caller must not see a half-built registry";
  buildStep = 2;
  first.join();
  second.join();
  EXPECT_EQ(0x101u, firstResult.load());
  EXPECT_EQ(0x101u, secondResult.load());
  EXPECT_EQ(1, opens.load()) << "the registry is built once";
}

}  // namespace
