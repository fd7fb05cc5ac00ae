// The HAL layer against the HAL double, loaded through the real dlopen path.
#include "discovery/hal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/doubles/hal_double_control.h"
#include "tests/unit/watchdog.h"

namespace {

const char kDrive0[] = "/org/freedesktop/Hal/devices/storage_serial_DRIVE0";
const char kDrive1[] = "/org/freedesktop/Hal/devices/storage_serial_DRIVE1";

// Every call of the layer answers "unavailable" without reaching HAL.
void ExpectUnavailable(HalDouble& hal) {
  EXPECT_FALSE(libhal_support_is_available());
  unsigned int count = 9;
  EXPECT_EQ(nullptr, libhal_support_get_all_cdrom_devices(&count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(nullptr, libhal_support_get_block_device(kDrive0));
  EXPECT_FALSE(libhal_support_lock_device(kDrive0));
  EXPECT_FALSE(libhal_support_unlock_device(kDrive0));
  EXPECT_EQ(0, hal.Calls("libhal_find_device_by_capability") + hal.Calls("libhal_device_get_property_string") +
                   hal.Calls("dbus_message_new_method_call"));
}

class HalLayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(hal_.Loaded());
    hal_.Reset();
    hal_.MapInto(world_);
  }
  void TearDown() override {
    hal_.Fail(HAL_DOUBLE_SHUTDOWN, false);
    bool done = false;
    ASSERT_TRUE(FinishesWithin(std::chrono::seconds(10), [&done] { done = libhal_support_done(); }));
    EXPECT_TRUE(done);
    EXPECT_TRUE(hal_.AllReleased());
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_{world_};
  HalDouble hal_;
};

// Starts on the system bus; a second start after a failed one reuses the
// loaded library and replaces the context; done shuts down and frees it.
TEST_F(HalLayerTest, StartsOnTheSystemBusAndShutsDown) {
  hal_.Fail(HAL_DOUBLE_CONTEXT_INIT);
  EXPECT_FALSE(libhal_support_init());
  world_.MapLibrary("libhal.so.1", "/nonexistent/libhal.so.1");
  hal_.Fail(HAL_DOUBLE_CONTEXT_INIT, false);
  ASSERT_TRUE(libhal_support_init());
  EXPECT_TRUE(libhal_support_is_available());
  EXPECT_EQ(1, hal_.LastBusType());
  EXPECT_EQ(2, hal_.Calls("libhal_ctx_new"));
  EXPECT_EQ(1, hal_.Outstanding(HAL_DOUBLE_CONTEXTS));
  EXPECT_TRUE(libhal_support_done());
  EXPECT_EQ(1, hal_.Calls("libhal_ctx_shutdown"));
  EXPECT_EQ(0, hal_.Outstanding(HAL_DOUBLE_CONTEXTS));
  ExpectUnavailable(hal_);
}

// A start that fails at one step leaves HAL unavailable, and done clears it.
TEST(HalFailedStart, EveryStepLeavesNothingBehind) {
  const struct {
    const char* variant;  // a library without one of the symbols, or the whole double
    int refusedStep;      // -1: the missing symbol is the failure
    const char *lastReached, *neverReached;
  } rows[] = {
      {"libhal_double_without_dbus_message_unref", -1, nullptr, "dbus_bus_get"},
      {"libhal_double", HAL_DOUBLE_BUS, "dbus_bus_get", "libhal_ctx_new"},
      {"libhal_double_without_libhal_free_string", -1, "dbus_bus_get", "libhal_ctx_new"},
      {"libhal_double", HAL_DOUBLE_CONTEXT_NEW, "libhal_ctx_new", "libhal_ctx_set_dbus_connection"},
      {"libhal_double", HAL_DOUBLE_SET_CONNECTION, "libhal_ctx_set_dbus_connection", "libhal_ctx_init"},
      {"libhal_double", HAL_DOUBLE_CONTEXT_INIT, "libhal_ctx_init", "libhal_ctx_shutdown"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.neverReached);
    fixture::FixtureWorld world;
    fixture::FixtureWorld::Scope scope(world);
    HalDouble hal(row.variant);
    ASSERT_TRUE(hal.Loaded());
    hal.Reset();
    hal.MapInto(world);
    if (row.refusedStep >= 0) hal.Fail(static_cast<HalDoubleStep>(row.refusedStep));
    EXPECT_FALSE(libhal_support_init());
    EXPECT_EQ(row.lastReached ? 1 : 0, row.lastReached ? hal.Calls(row.lastReached) : 0);
    EXPECT_EQ(0, hal.Calls(row.neverReached));
    ExpectUnavailable(hal);
    EXPECT_TRUE(libhal_support_done());
    ExpectUnavailable(hal);
    EXPECT_TRUE(hal.AllReleased());
  }
}

TEST_F(HalLayerTest, ListsCdromUdisAndTheirBlockDevices) {
  ASSERT_TRUE(libhal_support_init());
  unsigned int count = 5;
  char** none = libhal_support_get_all_cdrom_devices(&count);
  ASSERT_NE(nullptr, none);
  EXPECT_EQ(0u, count);
  libhal_support_free_string_array(none);
  hal_.AddCdrom(kDrive0, "/dev/sr0");
  hal_.AddCdrom(kDrive1, nullptr);
  char** udis = libhal_support_get_all_cdrom_devices(&count);
  ASSERT_EQ(2u, count);
  EXPECT_STREQ(kDrive1, udis[1]);
  char* block = libhal_support_get_block_device(udis[0]);
  EXPECT_STREQ("/dev/sr0", block);
  libhal_support_free_string(block);
  EXPECT_EQ(nullptr, libhal_support_get_block_device(udis[1]));
  libhal_support_free_string_array(udis);
  EXPECT_EQ(0, hal_.Outstanding(HAL_DOUBLE_STRINGS) + hal_.Outstanding(HAL_DOUBLE_STRING_ARRAYS));
  hal_.Fail(HAL_DOUBLE_FIND_DEVICES);
  EXPECT_EQ(nullptr, libhal_support_get_all_cdrom_devices(&count));
  EXPECT_EQ(0u, count);
}

std::vector<std::string> Describe(const std::vector<HalDoubleMethodCall>& sent) {
  std::vector<std::string> calls;
  for (const HalDoubleMethodCall& call : sent) {
    std::string text = std::string(call.destination) + " " + call.path + " " + call.interface + "." + call.method;
    for (int i = 0; i < call.argumentCount; ++i) text += std::string(" \"") + call.arguments[i] + "\"";
    calls.push_back(text);
  }
  return calls;
}

// Each refused step of a lock reports false and leaves nothing allocated.
TEST_F(HalLayerTest, LockAndUnlockSendTheHalDeviceMethods) {
  ASSERT_TRUE(libhal_support_init());
  EXPECT_TRUE(libhal_support_lock_device(kDrive0));
  EXPECT_TRUE(libhal_support_unlock_device(kDrive0));
  const std::string device = std::string("org.freedesktop.Hal ") + kDrive0 + " org.freedesktop.Hal.Device.";
  EXPECT_EQ((std::vector<std::string>{device + "Lock \"Locked by KavoAPI\"", device + "Unlock"}),
            Describe(hal_.Sent()));

  EXPECT_FALSE(libhal_support_lock_device(nullptr));
  for (HalDoubleStep step : {HAL_DOUBLE_METHOD_CALL, HAL_DOUBLE_APPEND_ARGS, HAL_DOUBLE_NEW_MESSAGE}) {
    SCOPED_TRACE(step);
    hal_.Fail(step);
    EXPECT_FALSE(libhal_support_lock_device(kDrive0));
    hal_.Fail(step, false);
  }
  EXPECT_EQ(3u, hal_.Sent().size()) << "only the refused call itself went out";
  EXPECT_EQ(0, hal_.Outstanding(HAL_DOUBLE_MESSAGES) + hal_.Outstanding(HAL_DOUBLE_ERRORS));
}

TEST_F(HalLayerTest, RefusedShutdownLeavesTheLayerUsable) {
  ASSERT_TRUE(libhal_support_init());
  hal_.Fail(HAL_DOUBLE_SHUTDOWN);
  EXPECT_FALSE(libhal_support_done());
  EXPECT_EQ(1, hal_.Outstanding(HAL_DOUBLE_CONTEXTS));
  bool locked = false;
  ASSERT_TRUE(FinishesWithin(std::chrono::seconds(10), [&locked] { locked = libhal_support_lock_device(kDrive0); }));
  EXPECT_TRUE(locked);
  hal_.Fail(HAL_DOUBLE_SHUTDOWN, false);
  EXPECT_TRUE(libhal_support_done());
  EXPECT_FALSE(libhal_support_is_available());
}

TEST_F(HalLayerTest, CallsFromManyThreadsReachHalOneAtATime) {
  hal_.AddCdrom(kDrive0, "/dev/sr0");
  ASSERT_TRUE(libhal_support_init());
  hal_.SetCallDelay(200);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 5; ++i) {
        libhal_support_lock_device(kDrive0);
        libhal_support_free_string(libhal_support_get_block_device(kDrive0));
        libhal_support_unlock_device(kDrive0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  hal_.SetCallDelay(0);

  EXPECT_EQ(40u, hal_.Sent().size());
  EXPECT_EQ(1, hal_.MaxConcurrentCalls());
}

}  // namespace
