// Discovery with HAL present (the HAL double loaded as libhal.so.1): HAL's
// start and shut-down around the registry, the UDIs it gives the drives,
// and the HAL locks a purge gives back.
#include <gtest/gtest.h>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/init.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"
#include "tests/doubles/hal_double_control.h"
#include "tests/fixture/machines.h"

namespace {

const char kDvdUdi[] = "/org/freedesktop/Hal/devices/storage_model_DVD_ROM_hdc";
const char kScsiUdi[] = "/org/freedesktop/Hal/devices/storage_model_CD_ROM_scd0";
const char kLaterScsiUdi[] = "/org/freedesktop/Hal/devices/storage_model_CD_ROM_scd0_0";

class DiscoveryWithHal : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(hal.Loaded());
    hal.Reset();
    hal.MapInto(world);
    SCSI_ResetDiscoveryState();
  }
  void TearDown() override {
    SCSI_Done();
    SCSI_ResetDiscoveryState();
    EXPECT_TRUE(hal.AllReleased());
  }

  std::string UdiOf(int adapter, int target) {
    DevicesMapHold hold;
    SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(adapter, 0, target, 0);
    return device == nullptr ? "(no device)" : device->HalUdi.GetString();
  }

  fixture::FixtureWorld world;
  fixture::FixtureWorld::Scope scope{world};
  HalDouble hal;
};

TEST_F(DiscoveryWithHal, GivesEachDriveTheFirstUdiOfItsNode) {
  hal.AddCdrom("/org/freedesktop/Hal/devices/storage_no_block", nullptr);
  hal.AddCdrom(kDvdUdi, "/dev/hdc");
  hal.AddCdrom(kScsiUdi, "/dev/scd0");
  hal.AddCdrom(kLaterScsiUdi, "/dev/scd0");
  hal.AddCdrom("/org/freedesktop/Hal/devices/storage_usb", "/dev/sr7");
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  EXPECT_TRUE(libhal_support_is_available());
  EXPECT_EQ(kDvdUdi, UdiOf(1, 0)) << "matched by DevicePath";
  EXPECT_EQ(kScsiUdi, UdiOf(2, 0)) << "matched by BlockDevicePath, HAL's first wins";
  EXPECT_EQ("", UdiOf(0, 0));
  EXPECT_EQ("", UdiOf(4, 3)) << "/dev/sr1 is not among HAL's drives";
  SCSI_Done();
  EXPECT_FALSE(libhal_support_is_available());
  EXPECT_EQ(5u, DevicesMap.size()) << "Done leaves the registry";
}

TEST_F(DiscoveryWithHal, StartsOnlyOn26AndOnlyWhenItComesUp) {
  hal.AddCdrom(kScsiUdi, "/dev/scd0");
  fixture::BuildKernel24IdeScsiMachine(world);
  SCSI_Init();
  EXPECT_EQ(0, hal.Calls("libhal_ctx_new"));
  EXPECT_EQ("", UdiOf(0, 0));
  SCSI_ResetDiscoveryState();
  world.SetUname("2.6.32-5-686");
  hal.Fail(HAL_DOUBLE_CONTEXT_INIT);
  SCSI_Init();
  EXPECT_FALSE(libhal_support_is_available());
  EXPECT_EQ("", UdiOf(0, 0));
  EXPECT_EQ(0, hal.Calls("libhal_find_device_by_capability"));
}

TEST_F(DiscoveryWithHal, PurgeUnlocksOnlyTheHoldsHalLocked) {
  hal.AddCdrom(kDvdUdi, "/dev/hdc");
  fixture::BuildIdeAndScsiMachine(world);
  SCSI_Init();
  {
    CPosixSingleLock lock(&OpenedDevicesMapLock, 1);
    OpenedDevicesMap[CBasicString<char>("/dev/hdc")] =
        new SCSI_RefCountedFileDesc{kavo::os::Open("/dev/hdc", 0), 1, true};
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] =
        new SCSI_RefCountedFileDesc{kavo::os::Open("/dev/sg0", 0), 1, false};
  }
  SCSI_BuildRegistry();
  const std::vector<HalDoubleMethodCall> sent = hal.Sent();
  ASSERT_EQ(1u, sent.size());
  EXPECT_STREQ("Unlock", sent[0].method);
  EXPECT_STREQ(kDvdUdi, sent[0].path);
  EXPECT_TRUE(OpenedDevicesMap.empty());
  EXPECT_EQ(0, world.OpenDescriptorCount());
}

}  // namespace
