// The entry points: dispatch, the host adapter inquiry byte for byte, and
// the refusals that must never touch the caller's block.
#include <gtest/gtest.h>
#include <string.h>

#include "aspi/srb.h"
#include "device/registry_internal.h"

namespace {

class EntryPoints : public ::testing::Test {
 protected:
  void SetUp() override {
    GetASPI32SupportInfo();  // the one-time initialisation, over an empty world
    SCSI_RegisterAdapter(0, "ide-cdrom", 0);
    SCSI_RegisterAdapter(2, "sixteen-chars-xy", 0);
    SCSI_RegisterAdapter(3, "a-name-longer-than-sixteen", 1);
    ControllerCount = 4;
  }
  void TearDown() override {
    for (auto& entry : HostAdaptersMap) delete entry.second;
    HostAdaptersMap.clear();
    ControllerCount = 0;
  }

  static SRB_HAInquiry Inquire(unsigned char adapter) {
    SRB_HAInquiry inquiry;
    memset(&inquiry, 0xAA, sizeof inquiry);
    inquiry.SRB_Cmd = SC_HA_INQUIRY;
    inquiry.SRB_HaId = adapter;
    EXPECT_EQ(static_cast<unsigned>(SS_COMP), SendASPI32Command(&inquiry));
    return inquiry;
  }
};

TEST_F(EntryPoints, HostAdapterInquiryByteForByte) {
  EXPECT_EQ(0x104u, GetASPI32SupportInfo());
  SRB_HAInquiry inquiry = Inquire(0);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&inquiry);
  EXPECT_EQ(SS_COMP, bytes[1]);
  EXPECT_EQ(2, bytes[8]) << "HA_Count is always 2";
  EXPECT_EQ(7, bytes[9]);
  EXPECT_EQ(0, memcmp(bytes + 10, "Linux ASPI\0\0\0\0\0\0", 16));
  EXPECT_EQ(0, memcmp(bytes + 26, "ide-cdrom\0\0\0\0\0\0\0", 16));
  const unsigned char unique[16] = {0, 0, 0, 8, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, memcmp(bytes + 42, unique, 16));
  EXPECT_EQ(0xAA, bytes[58]) << "HA_Rsvd1 is not written";
  EXPECT_EQ(0xAA, bytes[59]);
  EXPECT_EQ(0xAAAAAAAAu, inquiry.SRB_Hdr_Rsvd);
  // Names fill the identifier as strncpy would.
  EXPECT_EQ(0, memcmp(Inquire(2).HA_Identifier, "sixteen-chars-xy", 16));
  EXPECT_EQ(0, memcmp(Inquire(3).HA_Identifier, "a-name-longer-th", 16));
  EXPECT_EQ(0, memcmp(Inquire(200).HA_Identifier, "unknown\0\0\0\0\0\0\0\0\0", 16));
}

TEST_F(EntryPoints, RefusalsLeaveTheBlockUntouched) {
  for (unsigned char command : {0x03, 0x04, 0x7F, 0xFF}) {
    unsigned char block[80], before[80];
    memset(block, 0x5C, sizeof block);
    block[0] = command;
    memcpy(before, block, sizeof block);
    EXPECT_EQ(static_cast<unsigned>(SS_INVALID_SRB), SendASPI32Command(block));
    EXPECT_EQ(0, memcmp(before, block, sizeof block)) << int(command);
  }
  EXPECT_EQ(static_cast<unsigned>(SS_INVALID_SRB), SendASPI32Command(nullptr));
  SRB_GDEVBlock missing;
  memset(&missing, 0, sizeof missing);
  missing.SRB_Cmd = SC_GET_DEV_TYPE;
  missing.SRB_Target = 5;
  EXPECT_EQ(static_cast<unsigned>(SS_NO_DEVICE), SendASPI32Command(&missing));
  EXPECT_EQ(SS_NO_DEVICE, missing.SRB_Status);
  unsigned int words[2] = {0x11111111, 0x22222222};
  EXPECT_EQ(1u, TranslateASPI32Address(&words[0], &words[1]));
  EXPECT_EQ(0x11111111u, words[0]);
  EXPECT_EQ(0x22222222u, words[1]);
}

}  // namespace
