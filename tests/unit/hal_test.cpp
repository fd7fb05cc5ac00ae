// The HAL layer against the in-process HAL, reached through the world's
// LoadLibrary and FindSymbol as the real library would be.
#include "discovery/hal.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/fixture/world.h"

namespace {

using Lines = std::vector<std::string>;
const char kDrive[] = "/org/freedesktop/Hal/devices/storage_serial_DRIVE0";

// A start that fails at any step leaves HAL unavailable, every call
// answering so without reaching HAL, and nothing behind once done.
TEST(HalLayer, StartsOnTheSystemBusStepByStep) {
  const Lines start = {"dbus_bus_get 1", "libhal_ctx_new", "libhal_ctx_set_dbus_connection", "libhal_ctx_init"};
  for (size_t failing = 0; failing < start.size(); ++failing) {
    fixture::FixtureWorld world;
    fixture::FakeHal& hal = fixture::InstallFakeHal(world);
    hal.failing = start[failing].substr(0, start[failing].find(' '));
    EXPECT_FALSE(libhal_support_init());
    EXPECT_EQ(Lines(start.begin(), start.begin() + failing + 1), hal.calls);
    unsigned int count = 9;
    EXPECT_FALSE(libhal_support_get_all_cdrom_devices(&count) || count || libhal_support_lock_device(kDrive));
    EXPECT_TRUE(libhal_support_done());
    EXPECT_EQ(0, hal.outstanding);
  }
}

// Lists drives and their block nodes, locks with its reason and unlocks
// without one, gives back what each failed step handed out, and lets calls
// from many threads reach HAL one at a time.
TEST(HalLayer, ListsLocksAndGivesEverythingBack) {
  fixture::FixtureWorld world;
  fixture::FakeHal& hal = fixture::InstallFakeHal(world);
  hal.cdroms = {{kDrive, "/dev/sr0"}, {"/org/freedesktop/Hal/devices/none", ""}};
  ASSERT_TRUE(libhal_support_init());
  unsigned int count = 5;
  char** udis = libhal_support_get_all_cdrom_devices(&count);
  ASSERT_EQ(2u, count);
  char* block = libhal_support_get_block_device(udis[0]);
  EXPECT_STREQ("/dev/sr0", block);
  libhal_support_free_string(block);
  EXPECT_EQ(nullptr, libhal_support_get_block_device(udis[1]));
  libhal_support_free_string_array(udis);
  hal.calls.clear();
  EXPECT_TRUE(libhal_support_lock_device(kDrive) && libhal_support_unlock_device(kDrive));
  EXPECT_EQ("dbus_message_append_args Locked by KavoAPI", hal.calls[2]);
  EXPECT_EQ("dbus_message_append_args", hal.calls[8]) << "Unlock has no argument";
  for (const char* step : {"dbus_connection_send_with_reply_and_block", "dbus_message_append_args"}) {
    hal.failing = step;
    EXPECT_FALSE(libhal_support_lock_device(kDrive)) << step;
  }
  hal.failing = "";
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 5; ++i) libhal_support_lock_device(kDrive);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1, hal.mostAtOnce);
  EXPECT_TRUE(libhal_support_done());
  EXPECT_EQ(0, hal.outstanding);
}

}  // namespace
