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

TEST_F(Registry, NumbersIdeAdaptersFirstAndNamesAdapters) {
  EXPECT_EQ(5, ASPI_GetNumControllers());
  EXPECT_EQ(1, IsIDEAdapter(1));
  EXPECT_EQ(0, IsIDEAdapter(2));
  EXPECT_EQ(1, IsIDEAdapter(-1)) << "a signed comparison";
  EXPECT_EQ(0x00040000u, ASPI_GetHCforController(4));
  EXPECT_EQ(0x00FF0000u, ASPI_GetHCforController(255));
  EXPECT_EQ(1, IsRealScsiAdapter(2));
  EXPECT_EQ(0, IsRealScsiAdapter(4)) << "emulated host";
  SCSI_RegisterAdapter(2, "other", 1);
  EXPECT_STREQ("virtio_scsi", SCSI_GetAdapterName(2)) << "the first registration wins";
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(3));
  EXPECT_EQ(0, IsRealScsiAdapter(3));
  EXPECT_EQ(nullptr, HostAdaptersMap[3]) << "the lookup leaves an empty slot";
  SCSI_RegisterAdapter(9, "", 0);
  EXPECT_STREQ("unknown", SCSI_GetAdapterName(9)) << "an empty driver name reads as unknown";
  char replacement[] = "nameless";
  char* saved = pszUnknownHA;
  pszUnknownHA = replacement;
  EXPECT_STREQ("nameless", SCSI_GetAdapterName(77)) << "the unknown name follows the exported pointer";
  pszUnknownHA = saved;
}

TEST_F(Registry, LooksDevicesUpByTheirWholeAddressAndReplacesRecords) {
  EXPECT_STREQ("h100c00t03d00", SCSI_MakeDeviceKey(100, 0, 3, 0).GetString());
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(2, 0, 1, 0), SCSI_NewDeviceProperties("/dev/sg7"));
  DevicesMapHold hold;
  SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(2, 0, 1, 0);
  ASSERT_NE(nullptr, device);
  EXPECT_STREQ("/dev/sg7", device->DevicePath.GetString());
  ASSERT_NE(nullptr, device->DeviceLock);
  EXPECT_EQ(nullptr, SCSI_GetDeviceProperties(4, 0, 0, 0)) << "registered under channel 1 only";
  EXPECT_NE(nullptr, SCSI_GetDeviceProperties(4, 1, 0, 0));
  EXPECT_EQ(4u, DevicesMap.size()) << "lookups never insert";
}

}  // namespace
