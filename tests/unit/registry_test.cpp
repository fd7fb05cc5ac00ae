// Adapter numbering, names and the registry lookups, on a registry laid out
// the way discovery lays it out for a machine with two IDE adapters and SCSI
// hosts 0 and 2.
#include <gtest/gtest.h>

#include "device/registry.h"
#include "device/registry_internal.h"

namespace {

void ClearRegistry() {
  for (auto& entry : DevicesMap) SCSI_DeleteDeviceProperties(entry.second);
  DevicesMap.clear();
  for (auto& entry : HostAdaptersMap) delete entry.second;
  HostAdaptersMap.clear();
  IdeAdapterCount = ControllerCount = 0;
}

class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    ClearRegistry();
    SCSI_RegisterAdapter(0, "ide-cdrom", 0);
    SCSI_RegisterDevice(SCSI_MakeDeviceKey(0, 0, 0, 0), SCSI_NewDeviceProperties("/dev/hdc"));
    SCSI_RegisterAdapter(1, "ide-cdrom", 0);
    SCSI_RegisterDevice(SCSI_MakeDeviceKey(1, 0, 0, 0), SCSI_NewDeviceProperties("/dev/hde"));
    IdeAdapterCount = ControllerCount = 2;
    SCSI_RegisterAdapter(2, "virtio_scsi", 0);
    SCSI_RegisterDevice(SCSI_MakeDeviceKey(2, 0, 1, 0), SCSI_NewDeviceProperties("/dev/sg0"));
    SCSI_RegisterAdapter(4, "ata_piix", 1);
    SCSI_RegisterDevice(SCSI_MakeDeviceKey(4, 1, 0, 0), SCSI_NewDeviceProperties("/dev/sg1"));
    ControllerCount = 5;
  }
  void TearDown() override { ClearRegistry(); }
};

TEST_F(Registry, NumbersIdeAdaptersFirst) {
  EXPECT_EQ(5, ASPI_GetNumControllers());
  EXPECT_EQ(1, IsIDEAdapter(0));
  EXPECT_EQ(1, IsIDEAdapter(1));
  EXPECT_EQ(0, IsIDEAdapter(2));
  EXPECT_EQ(1, IsIDEAdapter(-1)) << "a signed comparison";
  EXPECT_EQ(0x00040000u, ASPI_GetHCforController(4));
  EXPECT_EQ(0x00FF0000u, ASPI_GetHCforController(255));
}

TEST_F(Registry, NamesAdaptersAndMarksEmulatedHosts) {
  EXPECT_STREQ("ide-cdrom", SCSI_GetAdapterName(1));
  EXPECT_STREQ("virtio_scsi", SCSI_GetAdapterName(2));
  EXPECT_EQ(1, IsRealScsiAdapter(2));
  EXPECT_EQ(0, IsRealScsiAdapter(4)) << "emulated host";
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(3));
  EXPECT_EQ(0, IsRealScsiAdapter(3));
  EXPECT_EQ(1u, HostAdaptersMap.count(3)) << "the lookup leaves an empty slot";
  EXPECT_EQ(nullptr, HostAdaptersMap[3]);
}

TEST_F(Registry, UnknownNameFollowsTheExportedPointer) {
  char replacement[] = "nameless";
  char* saved = pszUnknownHA;
  pszUnknownHA = replacement;
  EXPECT_STREQ("nameless", SCSI_GetAdapterName(77));
  pszUnknownHA = saved;
  SCSI_RegisterAdapter(9, "", 0);
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(9)) << "an empty driver name reads as unknown";
}

TEST_F(Registry, FirstRegistrationOfAnAdapterWins) {
  SCSI_RegisterAdapter(2, "other", 1);
  EXPECT_STREQ("virtio_scsi", SCSI_GetAdapterName(2));
  EXPECT_EQ(1, IsRealScsiAdapter(2));
}

TEST_F(Registry, LooksDevicesUpByTheirWholeAddress) {
  DevicesMapHold hold;
  SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(2, 0, 1, 0);
  ASSERT_NE(nullptr, device);
  EXPECT_STREQ("/dev/sg0", device->DevicePath.GetString());
  EXPECT_TRUE(device->BlockDevicePath.IsEmpty());
  ASSERT_NE(nullptr, device->DeviceLock);
  EXPECT_EQ(nullptr, SCSI_GetDeviceProperties(4, 0, 0, 0)) << "registered under channel 1 only";
  EXPECT_NE(nullptr, SCSI_GetDeviceProperties(4, 1, 0, 0));
  EXPECT_EQ(4u, DevicesMap.size()) << "lookups never insert";
}

TEST_F(Registry, ReplacingADeviceDisposesOfTheOldRecord) {
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(2, 0, 1, 0), SCSI_NewDeviceProperties("/dev/sg7"));
  DevicesMapHold hold;
  EXPECT_STREQ("/dev/sg7", SCSI_GetDeviceProperties(2, 0, 1, 0)->DevicePath.GetString());
  EXPECT_EQ(4u, DevicesMap.size());
}

TEST(DeviceKey, IsTwoDigitFieldsOrWider) {
  EXPECT_STREQ("h03c00t01d00", SCSI_MakeDeviceKey(3, 0, 1, 0).GetString());
  EXPECT_STREQ("h12c00t03d00", SCSI_MakeDeviceKey(12, 0, 3, 0).GetString());
  EXPECT_STREQ("h100c00t03d00", SCSI_MakeDeviceKey(100, 0, 3, 0).GetString());
}

}  // namespace
