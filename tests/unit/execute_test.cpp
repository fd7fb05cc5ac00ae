// Execute requests end to end: the real command path against emulated
// drives behind a generic node (SCSI host) and an IDE node.
#include <fcntl.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "aspi/execute_internal.h"
#include "device/registry_internal.h"
#include "gtest/gtest.h"
#include "runtime/os.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using fixture::EmulatedDrive;
using Cdb = std::vector<unsigned char>;

const unsigned char kIde = 0, kScsi = 1, kEmulated = 2;  // kEmulated: ATAPI behind ide-scsi
const unsigned char kSentinel = 0xAA;
const Cdb kInquiry = {0x12, 0, 0, 0, 36, 0}, kTestUnitReady = {0, 0, 0, 0, 0, 0};
Cdb Read10(unsigned char blocks) { return {0x28, 0, 0, 0, 0, 1, 0, 0, blocks, 0}; }

// An SRB followed by room for sense beyond its 16 bytes.
struct LongSenseBlock {
  SRB_ExecSCSICmd srb;
  unsigned char moreSense[64];
};

class ExecuteTest : public ::testing::Test {
 protected:
  ExecuteTest() : scope_(world_) {
    ide_ = fixture::PlaceIdeDrive(world_, "/dev/hdc");
    sg_ = fixture::PlaceSgDrive(world_, "/dev/sg0", 0, 0, 1, 0);
    emulated_ = fixture::PlaceSgDrive(world_, "/dev/sg1", 1, 0, 0, 0, 1);
    IdeAdapterCount = 1;
    SCSI_RegisterAdapter(kIde, "ide-cdrom", 0);
    SCSI_RegisterAdapter(kScsi, "sym53c8xx", 0);
    SCSI_RegisterAdapter(kEmulated, "ide-scsi", 1);
    fixture::RegisterTestDevice(kIde, 0, 0, 0, "/dev/hdc");
    fixture::RegisterTestDevice(kScsi, 0, 1, 0, "/dev/sg0", "/dev/sr0");
    fixture::RegisterTestDevice(kEmulated, 0, 0, 0, "/dev/sg1");
    memset(data_, kSentinel, sizeof data_);
  }

  // A block for the drive on adapter, every field the library must not
  // write set to the sentinel.
  SRB_ExecSCSICmd Block(unsigned char adapter, const Cdb& cdb, unsigned char flags = 0, unsigned int bufLen = 0) {
    SRB_ExecSCSICmd srb;
    memset(&srb, kSentinel, sizeof srb);
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
    srb.SRB_HaId = adapter;
    srb.SRB_Flags = flags;
    srb.SRB_Target = adapter == kScsi ? 1 : 0;
    srb.SRB_Lun = srb.SRB_SenseLen = 0;
    srb.SRB_BufLen = bufLen;
    srb.SRB_BufPointer = data_;
    srb.SRB_CDBLen = static_cast<unsigned char>(cdb.size());
    srb.SRB_PostProc = nullptr;
    memset(srb.CDBByte, 0, sizeof srb.CDBByte);
    std::copy_n(cdb.begin(), cdb.size() < 16 ? cdb.size() : 16, srb.CDBByte);
    return srb;
  }

  bool DataUntouched() const {
    for (unsigned char byte : data_)
      if (byte != kSentinel) return false;
    return true;
  }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
  std::shared_ptr<fixture::IdeNode> ide_;
  std::shared_ptr<fixture::SgNode> sg_, emulated_;
  unsigned char data_[4 * EmulatedDrive::kBlockSize];
};

// Status, host status and target status as the block shows them.
std::string Text(int status, int hostStatus, int targetStatus) {
  char text[32];
  snprintf(text, sizeof text, "%02X %02X %02X", status, hostStatus, targetStatus);
  return text;
}
std::string Result(const SRB_ExecSCSICmd& srb) { return Text(srb.SRB_Status, srb.SRB_HaStat, srb.SRB_TargStat); }
const int kUnset = kSentinel;

TEST_F(ExecuteTest, RefusedRequestsWriteOnlyTheStatusAndADirectionCorrection) {
  SRB_ExecSCSICmd unknown = Block(kScsi, kInquiry, 0, 36), ide = Block(kIde, kInquiry);
  unknown.SRB_Target = 5;
  ide.SRB_Target = 3;
  SRB_ExecSCSICmd noCdb = Block(kScsi, {}), longCdb = Block(kScsi, Cdb(16, 0));
  longCdb.SRB_CDBLen = 17;
  SRB_ExecSCSICmd noBuffer = Block(kScsi, Read10(1), SRB_DIR_IN, EmulatedDrive::kBlockSize);
  noBuffer.SRB_BufPointer = nullptr;
  SRB_ExecSCSICmd hugeLength = Block(kScsi, Read10(1), SRB_DIR_IN, 0xFFFFFFF0u);
  SRB_ExecSCSICmd ideLongCdb = Block(kIde, Cdb(16, 0x88));
  struct Row {
    SRB_ExecSCSICmd* srb;
    unsigned char status, flags;
  } rows[] = {{&unknown, SS_NO_DEVICE, SRB_DIR_IN},
              {&ide, SS_NO_DEVICE, 0},  // no corrections on the IDE path
              {&noCdb, SS_INVALID_SRB, 0},
              {&longCdb, SS_INVALID_SRB, 0},
              {&noBuffer, SS_INVALID_SRB, SRB_DIR_IN},
              {&hugeLength, SS_INVALID_SRB, SRB_DIR_IN},
              {&ideLongCdb, SS_INVALID_CMD, 0}};  // the packet holds 12 bytes
  for (const Row& row : rows) {
    SCOPED_TRACE(row.srb - &unknown);
    EXPECT_EQ(static_cast<unsigned>(SS_PENDING), ASPI_ExecuteSRB(row.srb));
    EXPECT_EQ(Text(row.status, kUnset, kUnset), Result(*row.srb));
    EXPECT_EQ(row.flags, row.srb->SRB_Flags);
  }
  for (const fixture::OpenRecord& open : world_.Opens()) EXPECT_NE("/dev/hdc", open.path);
  world_.FailOpen("/dev/sg0", ENOENT);
  SRB_ExecSCSICmd unopenable = Block(kScsi, kTestUnitReady);
  ASPI_ExecuteSRB(&unopenable);
  EXPECT_EQ(Text(SS_NO_DEVICE, kUnset, kUnset), Result(unopenable));
  EXPECT_TRUE(sg_->drive().Commands().empty());
  EXPECT_TRUE(DataUntouched());
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(ExecuteTest, TransportFailuresLeaveTheResultFieldsAlone) {
  struct Row {
    EmulatedDrive::Fault fault;
    unsigned char status;
  } rows[] = {{EmulatedDrive::Fault::ShortWrite, SS_ERR},
              {EmulatedDrive::Fault::ShortRead, SS_ERR},
              {EmulatedDrive::Fault::DriverBusy, SS_ASPI_IS_BUSY},
              {EmulatedDrive::Fault::DriverError, SS_ERR}};
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.fault));
    sg_->drive().FailNext(row.fault);
    SRB_ExecSCSICmd srb = Block(kScsi, kInquiry, SRB_DIR_IN, 36);
    srb.SRB_SenseLen = 14;
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(Text(row.status, kUnset, kUnset), Result(srb));
    EXPECT_EQ(kSentinel, srb.SenseArea[0]);
    EXPECT_TRUE(DataUntouched());
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

// The sense key decides the target status; at most 16 sense bytes come back
// on the generic path, and only as many as asked for. Without sense wanted
// the block's own sense area is judged.
TEST_F(ExecuteTest, GenericCheckConditionIsJudgedByItsSense) {
  struct Row {
    unsigned char key;
    Cdb cdb;
    unsigned char senseLen;
    std::string result;
  } rows[] = {
      {0x00, kTestUnitReady, 14, Text(SS_COMP, HASTAT_OK, 0)},                           // nothing to report
      {0x06, kTestUnitReady, 32, Text(SS_ERR, HASTAT_OK, 6)},                            // UNIT ATTENTION
      {0x05, {0xA4, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0}, 14, Text(SS_COMP, HASTAT_OK, 0)},  // REPORT KEY completes anyway
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.key));
    sg_->drive().FailNextWithSense(row.key, 0x28, 0);
    LongSenseBlock block;
    memset(&block, kSentinel, sizeof block);
    block.srb = Block(kScsi, row.cdb, 0, 8);
    block.srb.SRB_SenseLen = row.senseLen;
    ASPI_ExecuteSRB(&block.srb);
    EXPECT_EQ(row.result, Result(block.srb));
    EXPECT_EQ(0x70, block.srb.SenseArea[0]);
    EXPECT_EQ(0x28, block.srb.SenseArea[12]);
    EXPECT_EQ(row.senseLen < 16 ? kSentinel : 0x00, block.srb.SenseArea[row.senseLen < 16 ? row.senseLen : 15]);
    EXPECT_EQ(kSentinel, block.moreSense[0]);
  }
  sg_->drive().FailNextWithSense(0x02, 0x3A, 0);
  SRB_ExecSCSICmd check = Block(kScsi, kTestUnitReady);
  check.SenseArea[0] = 0;
  ASPI_ExecuteSRB(&check);
  EXPECT_EQ(Text(SS_ERR, HASTAT_OK, 2), Result(check));  // the status byte itself
  SRB_ExecSCSICmd good = Block(kScsi, kTestUnitReady);
  good.SenseArea[0] = 0xF0;  // left by the caller: valid bit, current error
  good.SenseArea[2] = 0x02;
  ASPI_ExecuteSRB(&good);
  EXPECT_EQ(Text(SS_ERR, HASTAT_OK, 2), Result(good));
}

// The IDE packet carries a sense buffer of 64 bytes; its length byte and the
// bytes copied back follow SRB_SenseLen up to that size.
TEST_F(ExecuteTest, IdePacketResultsAndSenseLimits) {
  SRB_ExecSCSICmd good = Block(kIde, kInquiry, SRB_DIR_IN, 36);
  ASPI_ExecuteSRB(&good);
  EXPECT_EQ(Text(SS_COMP, HASTAT_OK, kUnset), Result(good));
  EXPECT_EQ(0x05, data_[0]);
  EXPECT_EQ(CGC_DATA_READ, ide_->lastDataDirection);
  EXPECT_EQ(1, ide_->lastQuiet);
  EXPECT_EQ(-1, ide_->lastTimeout);
  struct Row {
    unsigned char senseLen, lengthByte;
    int lastCopied;  // index into moreSense: sense byte 16 + index
  } rows[] = {{18, 10, 1}, {100, 56, 47}};
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.senseLen));
    ide_->drive().FailNextWithSense(0x05, 0x24, 0);
    LongSenseBlock block;
    memset(&block, kSentinel, sizeof block);
    block.srb = Block(kIde, kTestUnitReady);
    block.srb.SRB_SenseLen = row.senseLen;
    ASPI_ExecuteSRB(&block.srb);
    EXPECT_EQ(Text(SS_ERR, kUnset, 2), Result(block.srb));
    EXPECT_EQ(row.lengthByte, ide_->lastSenseLengthByte);
    EXPECT_EQ(0x05, block.srb.SenseArea[2]);
    EXPECT_EQ(0x00, block.moreSense[row.lastCopied]);
    EXPECT_EQ(kSentinel, block.moreSense[row.lastCopied + 1]);
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(ExecuteTest, IdeSendsTwelveCommandBytesForLengthZero) {
  SRB_ExecSCSICmd noLength = Block(kIde, kInquiry, SRB_DIR_IN, 36);
  noLength.SRB_CDBLen = 0;
  noLength.CDBByte[11] = 0x5C;
  ASPI_ExecuteSRB(&noLength);
  EXPECT_EQ(SS_COMP, noLength.SRB_Status);
  ASSERT_EQ(1u, ide_->drive().Commands().size());
  EXPECT_EQ(12u, ide_->drive().Commands()[0].cdb.size());
  EXPECT_EQ(0x5C, ide_->drive().Commands()[0].cdb[11]);
}

TEST_F(ExecuteTest, DeviceThatVanishesAfterItsOpenEndsAsNoDevice) {
  // The open of the node is the last step before a request whose device is
  // busy polls for its lock; removing the record there stands in for a
  // rescan in between.
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
  SRB_ExecSCSICmd srb = Block(kScsi, kTestUnitReady);
  ASPI_ExecuteSRB(&srb);
  step = 2;
  other.join();
  EXPECT_EQ(SS_NO_DEVICE, srb.SRB_Status);
  EXPECT_TRUE(sg_->drive().Commands().empty());
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

// Commands that always move data one way get the missing direction bit;
// without a direction there is no data phase at all.
TEST_F(ExecuteTest, DirectionDecidesTheDataPhase) {
  struct Row {
    Cdb cdb;
    unsigned char flags;
    unsigned char correctedFlags;
    bool dataIn;
  } rows[] = {
      {{0x12, 0, 0, 0, 8, 0}, 0, SRB_DIR_IN, true},
      {{0x5A, 0, 0, 0, 0, 0, 0, 0, 8, 0}, 0, SRB_DIR_IN, true},
      {{0xA4, 0, 0, 0, 0, 0, 0, 0, 8, 0}, 0, SRB_DIR_IN, true},
      {{0xAD, 0, 0, 0, 0, 0, 0, 0, 8, 0}, 0, SRB_DIR_IN, true},
      {kInquiry, SRB_DIR_OUT, SRB_DIR_IN | SRB_DIR_OUT, false},  // both bits: no data phase
      {Read10(1), 0, 0, false},
      {Read10(2), SRB_DIR_IN, SRB_DIR_IN, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.cdb[0]));
    memset(data_, kSentinel, sizeof data_);
    SRB_ExecSCSICmd srb = Block(kScsi, row.cdb, row.flags, 2 * EmulatedDrive::kBlockSize);
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(row.correctedFlags, srb.SRB_Flags);
    EXPECT_EQ(row.dataIn ? 2 * EmulatedDrive::kBlockSize : 0, sg_->drive().Commands().back().dataInLength);
    EXPECT_TRUE(sg_->drive().Commands().back().dataOut.empty());
    EXPECT_EQ(!row.dataIn, DataUntouched());
  }
  EXPECT_EQ(0, memcmp(data_, &sg_->drive().disc[EmulatedDrive::kBlockSize], 2 * EmulatedDrive::kBlockSize));
  SRB_ExecSCSICmd noBuffer = Block(kScsi, Read10(1), 0, EmulatedDrive::kBlockSize);
  noBuffer.SRB_BufPointer = nullptr;  // no data phase, so no buffer is needed
  ASPI_ExecuteSRB(&noBuffer);
  EXPECT_EQ(SS_COMP, noBuffer.SRB_Status);

  const unsigned char key[12] = {0, 10, 0, 0, 9, 8, 7, 6, 5, 0, 0, 0};
  memcpy(data_, key, sizeof key);
  SRB_ExecSCSICmd send = Block(kScsi, {0xA3, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0x01, 0}, 0, sizeof key);
  ASPI_ExecuteSRB(&send);
  EXPECT_EQ(SRB_DIR_OUT, send.SRB_Flags);
  EXPECT_EQ(SS_COMP, send.SRB_Status);
  EXPECT_EQ(Cdb(key, key + sizeof key), sg_->drive().sentKey);
}

TEST_F(ExecuteTest, SixteenByteCommandSetsTheNextCommandLength) {
  Cdb read16(16, 0);
  read16[0] = 0x88;
  SRB_ExecSCSICmd srb = Block(kScsi, read16);
  ASPI_ExecuteSRB(&srb);
  ASSERT_EQ(1u, sg_->drive().Commands().size());
  EXPECT_EQ(16u, sg_->drive().Commands()[0].cdb.size());
  int nextLengths = 0;
  for (const fixture::IoctlRecord& record : world_.Ioctls())
    if (record.request == SG_NEXT_CMD_LEN && record.value == 16) ++nextLengths;
  EXPECT_EQ(1, nextLengths);
  EXPECT_EQ(SS_ERR, srb.SRB_Status);  // the drive does not know READ(16)
}

TEST_F(ExecuteTest, AnsiVersionIsClearedBehindEmulatedHostsOnly) {
  sg_->drive().ansiVersion = 0x02;
  emulated_->drive().ansiVersion = 0x02;
  SRB_ExecSCSICmd real = Block(kScsi, kInquiry, SRB_DIR_IN, 36), emulated = Block(kEmulated, kInquiry, SRB_DIR_IN, 36);
  ASPI_ExecuteSRB(&real);
  EXPECT_EQ(0x02, data_[2]);
  ASPI_ExecuteSRB(&emulated);
  EXPECT_EQ(0x00, data_[2]);
  emulated_->drive().ansiVersion = 0xF2;  // only the version bits go
  ASPI_ExecuteSRB(&emulated);
  EXPECT_EQ(0xF0, data_[2]);
}

std::vector<std::pair<unsigned char, int>> g_posts;  // status seen, descriptors open
const fixture::FixtureWorld* g_world = nullptr;
void RecordPost(SRB_ExecSCSICmd* srb) { g_posts.emplace_back(srb->SRB_Status, g_world->OpenDescriptorCount()); }

// Posted once, with the final status, after the descriptor is closed.
TEST_F(ExecuteTest, CompletionComesOnceWithTheFinalStatusOnEveryPath) {
  SRB_ExecSCSICmd good = Block(kScsi, kTestUnitReady, SRB_POSTING | SRB_EVENT_NOTIFY);
  SRB_ExecSCSICmd missing = Block(kScsi, kTestUnitReady, SRB_POSTING);
  missing.SRB_Target = 6;
  SRB_ExecSCSICmd refused = Block(kIde, Cdb(13, 0), SRB_POSTING);
  g_world = &world_;
  g_posts.clear();
  for (SRB_ExecSCSICmd* srb : {&good, &missing, &refused}) {
    srb->SRB_PostProc = reinterpret_cast<void*>(&RecordPost);
    ASPI_ExecuteSRB(srb);
  }
  EXPECT_EQ((std::vector<std::pair<unsigned char, int>>{{SS_COMP, 0}, {SS_NO_DEVICE, 0}, {SS_INVALID_CMD, 0}}),
            g_posts);
  CPosixEvent event(0, 1);
  SRB_ExecSCSICmd notify = Block(kIde, kTestUnitReady, SRB_EVENT_NOTIFY);
  notify.SRB_PostProc = &event;
  ASPI_ExecuteSRB(&notify);
  EXPECT_EQ(1, event.WaitForEvent(0));
}

TEST_F(ExecuteTest, DescriptorOfADriveHeldExclusivelyIsUsedAndKeptOpen) {
  const int held = kavo::os::Open("/dev/sg0", O_RDWR);
  {
    DevicesMapHold hold;
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] = new SCSI_RefCountedFileDesc{held, 1, false};
  }
  world_.ClearLogs();
  SRB_ExecSCSICmd srb = Block(kScsi, kTestUnitReady);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_TRUE(world_.Opens().empty());
  EXPECT_EQ(1, world_.OpenDescriptorCount());
  EXPECT_EQ(0, kavo::os::Close(held));
}

TEST_F(ExecuteTest, TwoThreadsOnOneDeviceAreSerialisedByItsLock) {
  EmulatedDrive& drive = sg_->drive();
  drive.CloseGate();
  SRB_ExecSCSICmd first = Block(kScsi, kTestUnitReady);
  SRB_ExecSCSICmd second = Block(kScsi, kInquiry, SRB_DIR_IN, 36);
  std::thread firstThread([&] { ASPI_ExecuteSRB(&first); });
  drive.WaitForWaiting(1);
  std::thread secondThread([&] { ASPI_ExecuteSRB(&second); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(1u, drive.Commands().size());  // the second waits for the device, not at the drive
  { DevicesMapHold hold; }                 // and the registry stays free meanwhile
  drive.OpenGate();
  firstThread.join();
  secondThread.join();
  EXPECT_EQ(1, drive.MostConcurrentCommands());
  EXPECT_EQ(SS_COMP, first.SRB_Status);
  EXPECT_EQ(SS_COMP, second.SRB_Status);
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

}  // namespace
