// Execute requests through the real command path against emulated drives:
// refusals, driver faults, sense mapping, direction fixes and the IDE
// packet, which a real drive cannot be made to show on demand.
#include <linux/cdrom.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "aspi/execute_internal.h"
#include "device/registry_internal.h"
#include "gtest/gtest.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using fixture::EmulatedDrive;
using Cdb = std::vector<unsigned char>;
const unsigned char kIde = 0, kScsi = 1, kX = 0xAA;  // kX: what the library must leave alone
const Cdb kInquiry = {0x12, 0, 0, 0, 36, 0}, kTur = {0, 0, 0, 0, 0, 0}, kRead = {0x28, 0, 0, 0, 0, 1, 0, 0, 1, 0};
const Cdb kReportKey = {0xA4, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0};

struct Block {  // a block with room for sense beyond its own 16 bytes
  SRB_ExecSCSICmd srb;
  unsigned char more[64];
};
std::vector<std::string> g_posts;  // the result each post saw, and the descriptors open then
const fixture::FixtureWorld* g_world;

std::string Result(const SRB_ExecSCSICmd& srb) {
  char text[16];
  snprintf(text, sizeof text, "%02X %02X %02X", srb.SRB_Status, srb.SRB_HaStat, srb.SRB_TargStat);
  return text;
}
void RecordPost(SRB_ExecSCSICmd* srb) { g_posts.push_back(Result(*srb) + " " + std::to_string(g_world->OpenDescriptorCount())); }

class ExecuteTest : public ::testing::Test {
 protected:
  ExecuteTest() : scope_(world_) {
    ide_ = fixture::PlaceIdeDrive(world_, "/dev/hdc");
    sg_ = fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 1, 0);
    IdeAdapterCount = 1;
    SCSI_RegisterAdapter(kScsi, "sym53c8xx", 0);
    fixture::RegisterTestDevice(kIde, 0, 0, 0, "/dev/hdc");
    fixture::RegisterTestDevice(kScsi, 0, 1, 0, "/dev/sg0", "/dev/sr0");
    memset(data_, kX, sizeof data_);
    g_world = &world_;
  }
  // A posting block for target 1 (the IDE drive's target is 0); all else the library may not write is kX.
  SRB_ExecSCSICmd& Make(unsigned char adapter, const Cdb& cdb, unsigned char flags = 0, unsigned int bufLen = 0) {
    memset(&block_, kX, sizeof block_);
    SRB_ExecSCSICmd& srb = block_.srb;
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_HaId = adapter, srb.SRB_Flags = flags | SRB_POSTING;
    srb.SRB_Target = adapter == kScsi, srb.SRB_Lun = srb.SRB_SenseLen = 0;
    srb.SRB_BufLen = bufLen, srb.SRB_BufPointer = data_, srb.SRB_PostProc = reinterpret_cast<void*>(&RecordPost);
    srb.SRB_CDBLen = static_cast<unsigned char>(cdb.size());
    memset(srb.CDBByte, 0, sizeof srb.CDBByte);
    memcpy(srb.CDBByte, cdb.data(), std::min<size_t>(cdb.size(), 16));
    return srb;
  }
  // Runs the block: posted once, with its final status, after its descriptor is closed.
  std::string Run() {
    g_posts.clear();
    EXPECT_EQ(static_cast<unsigned>(SS_PENDING), ASPI_ExecuteSRB(&block_.srb));
    EXPECT_EQ(std::vector<std::string>{Result(block_.srb) + " 0"}, g_posts);
    return Result(block_.srb);
  }
  bool DataUntouched() const { return std::count(data_, data_ + sizeof data_, kX) == sizeof data_; }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
  std::shared_ptr<fixture::IdeNode> ide_;
  std::shared_ptr<fixture::SgNode> sg_;
  Block block_;
  unsigned char data_[4 * EmulatedDrive::kBlockSize];
};

// Refused requests write only their status (and a direction correction) and reach no drive.
TEST_F(ExecuteTest, RefusalsWriteOnlyTheStatus) {
  const struct {
    unsigned char adapter, target, cdbLen;
    unsigned int bufLen;
    const char* result;
    unsigned char flagsAfter;
  } rows[] = {
      {kScsi, 5, 6, 36, "82 AA AA", SRB_DIR_IN},  // unknown target; INQUIRY still corrected
      {kIde, 3, 6, 36, "82 AA AA", 0},            // no corrections on the IDE path
      {kScsi, 1, 17, 36, "E0 AA AA", SRB_DIR_IN},
      {kScsi, 1, 6, 0xFFFFFFF0u, "E0 AA AA", SRB_DIR_IN},
      {kScsi, 1, 6, 36, "E0 AA AA", SRB_DIR_IN},  // no buffer for the data
      {kIde, 0, 13, 0, "80 AA AA", 0},            // the packet holds 12 bytes
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    SRB_ExecSCSICmd& srb = Make(row.adapter, kInquiry, 0, row.bufLen);
    srb.SRB_Target = row.target, srb.SRB_CDBLen = row.cdbLen;
    if (&row == rows + 4) srb.SRB_BufPointer = nullptr;  // the row without a buffer
    EXPECT_EQ(row.result, Run());
    EXPECT_EQ(row.flagsAfter | SRB_POSTING, srb.SRB_Flags);
  }
  EXPECT_TRUE(sg_->drive().Commands().empty() && ide_->drive().Commands().empty() && DataUntouched());
}

TEST_F(ExecuteTest, DriverFaultsLeaveResultFieldsSenseAndDataAlone) {
  const std::pair<EmulatedDrive::Fault, const char*> rows[] = {{EmulatedDrive::Fault::ShortWrite, "04 AA AA"},
                                                               {EmulatedDrive::Fault::ShortRead, "04 AA AA"},
                                                               {EmulatedDrive::Fault::DriverBusy, "E5 AA AA"},
                                                               {EmulatedDrive::Fault::DriverError, "04 AA AA"}};
  for (const auto& row : rows) {
    sg_->drive().FailNext(row.first);
    Make(kScsi, kInquiry, SRB_DIR_IN, 36).SRB_SenseLen = 14;
    EXPECT_EQ(row.second, Run());
    EXPECT_EQ(kX, block_.srb.SenseArea[0]);
    EXPECT_TRUE(DataUntouched());
  }
}

// The sense key decides the target status; at most 16 sense bytes come back
// on the generic path, as many as asked for. Without sense asked for, what
// the caller left in the sense area is judged.
TEST_F(ExecuteTest, GenericCheckConditionIsJudgedByItsSense) {
  const struct {
    int key;  // -1: no CHECK CONDITION
    Cdb cdb;
    unsigned char senseLen, left0, left2;
    const char* result;
  } rows[] = {
      {0x00, kTur, 14, kX, kX, "01 00 00"},        // nothing to report
      {0x06, kTur, 32, kX, kX, "04 00 06"},        // UNIT ATTENTION
      {0x05, kReportKey, 14, kX, kX, "01 00 00"},  // REPORT KEY completes anyway
      {0x02, kTur, 0, 0x00, kX, "04 00 02"},       // the status byte itself
      {-1, kTur, 0, 0xF0, 0x02, "04 00 02"},       // good, but the caller's sense says NOT READY
  };
  for (const auto& row : rows) {
    if (row.key >= 0) sg_->drive().FailNextWithSense(row.key, 0x28, 0);
    SRB_ExecSCSICmd& srb = Make(kScsi, row.cdb, 0, 8);
    srb.SRB_SenseLen = row.senseLen, srb.SenseArea[0] = row.left0, srb.SenseArea[2] = row.left2;
    EXPECT_EQ(row.result, Run()) << row.key;
    if (row.senseLen == 0) continue;
    EXPECT_EQ(0x28, srb.SenseArea[12]);
    EXPECT_EQ(row.senseLen < 16 ? kX : 0x00, srb.SenseArea[std::min(row.senseLen, static_cast<unsigned char>(15))]);
    EXPECT_EQ(kX, block_.more[0]) << "no more than 16 bytes";
  }
}

// The packet carries 12 command bytes (all 12 for length 0) and a 64-byte
// sense buffer whose length byte and copied bytes follow SRB_SenseLen.
TEST_F(ExecuteTest, IdePacketCommandAndSenseLimits) {
  Make(kIde, kInquiry, SRB_DIR_IN, 36).SRB_CDBLen = 0;
  block_.srb.CDBByte[11] = 0x5C;
  EXPECT_EQ("01 00 AA", Run());
  EXPECT_EQ(0x05, data_[0]);
  EXPECT_EQ((Cdb{0x12, 0, 0, 0, 36, 0, 0, 0, 0, 0, 0, 0x5C}), ide_->drive().Commands()[0].cdb);
  EXPECT_EQ("2 1 -1", std::to_string(ide_->lastDataDirection) + " " + std::to_string(ide_->lastQuiet) + " " +
                          std::to_string(ide_->lastTimeout));  // CGC_DATA_READ, quiet, the driver's default timeout
  const struct {
    unsigned char senseLen, lengthByte, copied;
  } rows[] = {{18, 10, 18}, {100, 56, 64}};
  for (const auto& row : rows) {
    ide_->drive().FailNextWithSense(0x05, 0x24, 0);
    Make(kIde, kTur).SRB_SenseLen = row.senseLen;
    EXPECT_EQ("04 AA 02", Run());
    EXPECT_EQ(row.lengthByte, ide_->lastSenseLengthByte);
    EXPECT_EQ(0x05, block_.srb.SenseArea[2]);
    EXPECT_EQ(0x00, block_.more[row.copied - 17]);
    EXPECT_EQ(kX, block_.more[row.copied - 16]) << static_cast<int>(row.senseLen);
  }
}

// A request whose device is busy polls for its lock; a record that left the
// registry meanwhile (a rescan in between) ends the wait.
TEST_F(ExecuteTest, DeviceThatVanishesAfterItsOpenEndsAsNoDevice) {
  std::atomic<int> step(0);
  std::thread other([&step] {
    CPosixMutex* lock = SCSI_LockDeviceLock(kScsi, 0, 1, 0);
    step = 1;
    while (step != 2) std::this_thread::yield();
    SCSI_UnlockDeviceLock(lock);
  });
  while (step != 1) std::this_thread::yield();
  sg_->onOpen = [] {
    DevicesMapHold hold;
    auto found = DevicesMap.find(SCSI_MakeDeviceKey(kScsi, 0, 1, 0));
    SCSI_DeleteDeviceProperties(found->second);
    DevicesMap.erase(found);
  };
  Make(kScsi, kTur);
  EXPECT_EQ("82 AA AA", Run());
  step = 2;
  other.join();
  EXPECT_TRUE(sg_->drive().Commands().empty());
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

// Commands that always move data one way get the missing direction bit;
// without a direction there is no data phase at all.
TEST_F(ExecuteTest, DirectionDecidesTheDataPhase) {
  const struct {
    Cdb cdb;
    unsigned char flags, flagsAfter;
    size_t in, out;
  } rows[] = {
      {{0x5A, 0, 0, 0, 0, 0, 0, 0, 8, 0}, 0, SRB_DIR_IN, 8, 0},
      {kReportKey, 0, SRB_DIR_IN, 8, 0},
      {{0xAD, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0, 0}, 0, SRB_DIR_IN, 8, 0},
      {{0xA3, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0}, 0, SRB_DIR_OUT, 0, 8},
      {kInquiry, SRB_DIR_OUT, SRB_DIR_IN | SRB_DIR_OUT, 0, 0},  // both bits: no data phase
      {{0x28, 0, 0, 0, 0, 1, 0}, SRB_DIR_IN, SRB_DIR_IN, 8, 0},  // a short CDB reaches the drive as given
  };
  for (const auto& row : rows) {
    Make(kScsi, row.cdb, row.flags, 8);
    Run();
    EXPECT_EQ(row.flagsAfter | SRB_POSTING, block_.srb.SRB_Flags);
    const fixture::DriveCommand command = sg_->drive().Commands().back();
    EXPECT_EQ(row.cdb, command.cdb);
    EXPECT_EQ(row.in, command.dataInLength);
    EXPECT_EQ(row.out, command.dataOut.size());
  }
  Make(kScsi, kRead, 0, EmulatedDrive::kBlockSize).SRB_BufPointer = nullptr;  // no data phase needs no buffer
  EXPECT_EQ("01 00 00", Run());
}

}  // namespace
