// The HAL layer against the in-process HAL, reached through the world's
// LoadLibrary and FindSymbol as the real library would be.
#include "discovery/hal.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/fixture/world.h"

namespace {

using Lines = std::vector<std::string>;
const char kDrive0[] = "/org/freedesktop/Hal/devices/storage_serial_DRIVE0";
const char kDrive1[] = "/org/freedesktop/Hal/devices/storage_serial_DRIVE1";
const Lines kStart = {"dbus_bus_get 1", "libhal_ctx_new", "libhal_ctx_set_dbus_connection", "libhal_ctx_init"};

// Every call of the layer answers "unavailable" without reaching HAL.
void ExpectUnavailable(fixture::FakeHal& hal) {
  const size_t calls = hal.calls.size();
  unsigned int count = 9;
  EXPECT_FALSE(libhal_support_is_available());
  EXPECT_EQ(nullptr, libhal_support_get_all_cdrom_devices(&count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(nullptr, libhal_support_get_block_device(kDrive0));
  EXPECT_FALSE(libhal_support_lock_device(kDrive0) || libhal_support_unlock_device(kDrive0));
  EXPECT_EQ(calls, hal.calls.size());
}

// A start that fails at any step leaves HAL unavailable and nothing behind
// once done; a start after a failed one reuses the library and replaces the context.
TEST(HalLayer, StartsOnTheSystemBusStepByStep) {
  const struct {
    const char *missing, *failing;
    size_t stepsReached;
  } rows[] = {{"dbus_message_unref", "", 0},   {"", "dbus_bus_get", 1}, {"libhal_free_string", "", 1},
              {"", "libhal_ctx_new", 2},       {"", "libhal_ctx_set_dbus_connection", 3},
              {"", "libhal_ctx_init", 4}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.missing + std::string(row.failing));
    fixture::FixtureWorld world;
    fixture::FixtureWorld::Scope scope(world);
    fixture::FakeHal& hal = fixture::InstallFakeHal(world);
    hal.missing = row.missing;
    hal.failing = row.failing;
    EXPECT_FALSE(libhal_support_init());
    EXPECT_EQ(Lines(kStart.begin(), kStart.begin() + row.stepsReached), hal.calls);
    ExpectUnavailable(hal);
    if (row.stepsReached == 4) {
      hal.failing = hal.missing = "";
      hal.calls.clear();
      world.MapLibrary("libhal.so.1", "/nonexistent/libhal.so.1");
      EXPECT_TRUE(libhal_support_init());
      EXPECT_EQ((Lines{"dbus_bus_get 1", "libhal_ctx_free", "libhal_ctx_new", "libhal_ctx_set_dbus_connection", "libhal_ctx_init"}),
                hal.calls);
      EXPECT_TRUE(libhal_support_is_available());
    }
    EXPECT_TRUE(libhal_support_done());
    ExpectUnavailable(hal);
    EXPECT_EQ(0, hal.outstanding);
  }
}

TEST(HalLayer, ListsDrivesLocksThemAndShutsDown) {
  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope(world);
  fixture::FakeHal& hal = fixture::InstallFakeHal(world);
  hal.cdroms = {{kDrive0, "/dev/sr0"}, {kDrive1, ""}};
  ASSERT_TRUE(libhal_support_init());
  unsigned int count = 5;
  char** udis = libhal_support_get_all_cdrom_devices(&count);
  ASSERT_EQ(2u, count);
  EXPECT_STREQ(kDrive1, udis[1]);
  char* block = libhal_support_get_block_device(udis[0]);
  EXPECT_STREQ("/dev/sr0", block);
  libhal_support_free_string(block);
  EXPECT_EQ(nullptr, libhal_support_get_block_device(udis[1]));
  libhal_support_free_string_array(udis);
  hal.failing = "libhal_find_device_by_capability";
  EXPECT_EQ(nullptr, libhal_support_get_all_cdrom_devices(&count));
  EXPECT_EQ(0u, count);

  hal.calls.clear();
  hal.failing = "";
  EXPECT_TRUE(libhal_support_lock_device(kDrive0));
  EXPECT_TRUE(libhal_support_unlock_device(kDrive0));
  EXPECT_FALSE(libhal_support_lock_device(nullptr));
  for (const char* step : {"dbus_connection_send_with_reply_and_block", "dbus_message_append_args",
                           "dbus_message_new_method_call"}) {
    hal.failing = step;
    EXPECT_FALSE(libhal_support_lock_device(kDrive0)) << step;
  }
  hal.failing = "libhal_ctx_shutdown";
  EXPECT_FALSE(libhal_support_done()) << "a refused shutdown keeps the layer";
  EXPECT_TRUE(libhal_support_lock_device(kDrive0));
  EXPECT_EQ("dbus_message_append_args Locked by KavoAPI", hal.calls[2]);
  EXPECT_EQ("dbus_message_append_args", hal.calls[8]) << "Unlock has no argument";
  const std::string lock = "Lock " + std::string(kDrive0);
  EXPECT_EQ((Lines{lock, "Unlock " + std::string(kDrive0), lock, lock, lock}), hal.Sent());
  // Calls from many threads reach HAL one at a time.
  hal.failing = "";
  hal.delayMicroseconds = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([] {
      for (int i = 0; i < 5; ++i) libhal_support_lock_device(kDrive0), libhal_support_free_string(libhal_support_get_block_device(kDrive0));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(25u, hal.Sent().size());
  EXPECT_EQ(1, hal.mostAtOnce);
  EXPECT_TRUE(libhal_support_done());
  EXPECT_EQ(0, hal.outstanding);
}

}  // namespace
