// Execute requests end to end: the real command path against emulated
// drives behind a generic node (SCSI host) and an IDE node.
#include <fcntl.h>
#include <linux/cdrom.h>
#include <scsi/sg.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "aspi/execute_internal.h"
#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "gtest/gtest.h"
#include "runtime/os.h"
#include "runtime/sync.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/fixture/world.h"

namespace {

using fixture::EmulatedDrive;

const unsigned char kIdeAdapter = 0;
const unsigned char kScsiAdapter = 1;     // Linux SCSI host 0, a real host
const unsigned char kEmulatedAdapter = 2;  // Linux SCSI host 1, ATAPI behind emulation
const unsigned char kSentinel = 0xAA;

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
    SCSI_RegisterAdapter(kIdeAdapter, "ide-cdrom", 0);
    SCSI_RegisterAdapter(kScsiAdapter, "sym53c8xx", 0);
    SCSI_RegisterAdapter(kEmulatedAdapter, "ide-scsi", 1);
    fixture::RegisterTestDevice(kIdeAdapter, 0, 0, 0, "/dev/hdc");
    fixture::RegisterTestDevice(kScsiAdapter, 0, 1, 0, "/dev/sg0", "/dev/sr0");
    fixture::RegisterTestDevice(kEmulatedAdapter, 0, 0, 0, "/dev/sg1");
    memset(data_, kSentinel, sizeof data_);
  }

  // A block for the drive at (adapter, target), every field the library
  // must not write set to the sentinel.
  SRB_ExecSCSICmd Block(unsigned char adapter, std::vector<unsigned char> cdb, unsigned char flags = 0,
                        unsigned int bufLen = 0) {
    SRB_ExecSCSICmd srb;
    memset(&srb, kSentinel, sizeof srb);
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
    srb.SRB_HaId = adapter;
    srb.SRB_Flags = flags;
    srb.SRB_Target = adapter == kScsiAdapter ? 1 : 0;
    srb.SRB_Lun = 0;
    srb.SRB_BufLen = bufLen;
    srb.SRB_BufPointer = data_;
    srb.SRB_SenseLen = 0;
    srb.SRB_CDBLen = static_cast<unsigned char>(cdb.size());
    srb.SRB_PostProc = nullptr;
    memset(srb.CDBByte, 0, sizeof srb.CDBByte);
    memcpy(srb.CDBByte, cdb.data(), cdb.size() < 16 ? cdb.size() : 16);
    return srb;
  }

  static std::vector<unsigned char> Inquiry() { return {0x12, 0, 0, 0, 36, 0}; }
  static std::vector<unsigned char> TestUnitReady() { return {0x00, 0, 0, 0, 0, 0}; }
  static std::vector<unsigned char> Read10(unsigned char blocks) { return {0x28, 0, 0, 0, 0, 1, 0, 0, blocks, 0}; }

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

// --- Status table -----------------------------------------------------------

TEST_F(ExecuteTest, UnknownDeviceWritesOnlyTheStatusAndADirectionCorrection) {
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, Inquiry(), 0, 36);
  srb.SRB_Target = 5;
  EXPECT_EQ(static_cast<unsigned>(SS_PENDING), ASPI_ExecuteSRB(&srb));
  EXPECT_EQ(SS_NO_DEVICE, srb.SRB_Status);
  EXPECT_EQ(SRB_DIR_IN, srb.SRB_Flags);
  EXPECT_EQ(kSentinel, srb.SRB_HaStat);
  EXPECT_EQ(kSentinel, srb.SRB_TargStat);
  EXPECT_TRUE(DataUntouched());

  SRB_ExecSCSICmd ide = Block(kIdeAdapter, Inquiry());
  ide.SRB_Target = 3;
  ASPI_ExecuteSRB(&ide);
  EXPECT_EQ(SS_NO_DEVICE, ide.SRB_Status);
  EXPECT_EQ(0, ide.SRB_Flags);  // no corrections on the IDE path

  world_.FailOpen("/dev/sg0", ENOENT);
  SRB_ExecSCSICmd unopenable = Block(kScsiAdapter, TestUnitReady());
  ASPI_ExecuteSRB(&unopenable);
  EXPECT_EQ(SS_NO_DEVICE, unopenable.SRB_Status);
}

TEST_F(ExecuteTest, MalformedGenericRequestsAreRefusedBeforeTheDrive) {
  SRB_ExecSCSICmd noCdb = Block(kScsiAdapter, {});
  SRB_ExecSCSICmd longCdb = Block(kScsiAdapter, std::vector<unsigned char>(16, 0));
  longCdb.SRB_CDBLen = 17;
  SRB_ExecSCSICmd noBuffer = Block(kScsiAdapter, Read10(1), SRB_DIR_IN, EmulatedDrive::kBlockSize);
  noBuffer.SRB_BufPointer = nullptr;
  SRB_ExecSCSICmd hugeLength = Block(kScsiAdapter, Read10(1), SRB_DIR_IN, 0xFFFFFFF0u);
  for (SRB_ExecSCSICmd* srb : {&noCdb, &longCdb, &noBuffer, &hugeLength}) {
    ASPI_ExecuteSRB(srb);
    EXPECT_EQ(SS_INVALID_SRB, srb->SRB_Status);
    EXPECT_EQ(kSentinel, srb->SRB_TargStat);
  }
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
    sg_->drive().FailNext(row.fault);
    SRB_ExecSCSICmd srb = Block(kScsiAdapter, Inquiry(), SRB_DIR_IN, 36);
    srb.SRB_SenseLen = 14;
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(row.status, srb.SRB_Status) << static_cast<int>(row.fault);
    EXPECT_EQ(kSentinel, srb.SRB_HaStat);
    EXPECT_EQ(kSentinel, srb.SRB_TargStat);
    EXPECT_EQ(kSentinel, srb.SenseArea[0]);
    EXPECT_TRUE(DataUntouched());
  }
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

TEST_F(ExecuteTest, SenseKeyDecidesTheTargetStatus) {
  struct Row {
    unsigned char key;
    std::vector<unsigned char> cdb;
    unsigned char status, targetStatus;
  } rows[] = {
      {0x00, TestUnitReady(), SS_COMP, 0x00},  // CHECK CONDITION with nothing to report
      {0x06, TestUnitReady(), SS_ERR, 0x06},   // UNIT ATTENTION
      {0x05, {0xA4, 0, 0, 0, 0, 0, 0, 0, 0, 8, 0, 0}, SS_COMP, 0x00},  // REPORT KEY completes anyway
  };
  for (const Row& row : rows) {
    sg_->drive().FailNextWithSense(row.key, 0x28, 0);
    SRB_ExecSCSICmd srb = Block(kScsiAdapter, row.cdb, 0, 8);
    srb.SRB_SenseLen = 14;
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(row.status, srb.SRB_Status) << "key " << int(row.key);
    EXPECT_EQ(row.targetStatus, srb.SRB_TargStat) << "key " << int(row.key);
    EXPECT_EQ(HASTAT_OK, srb.SRB_HaStat);
    EXPECT_EQ(0x70, srb.SenseArea[0]);
    EXPECT_EQ(0x28, srb.SenseArea[12]);
    EXPECT_EQ(kSentinel, srb.SenseArea[14]);  // only SRB_SenseLen bytes
  }
}

TEST_F(ExecuteTest, WithoutSenseWantedTheBlocksOwnSenseAreaIsJudged) {
  sg_->drive().FailNextWithSense(0x02, 0x3A, 0);
  SRB_ExecSCSICmd check = Block(kScsiAdapter, TestUnitReady());
  check.SenseArea[0] = 0;
  ASPI_ExecuteSRB(&check);
  EXPECT_EQ(SS_ERR, check.SRB_Status);
  EXPECT_EQ(0x02, check.SRB_TargStat);  // the status byte itself

  SRB_ExecSCSICmd good = Block(kScsiAdapter, TestUnitReady());
  good.SenseArea[0] = 0xF0;  // left by the caller: valid bit, current error
  good.SenseArea[2] = 0x02;
  ASPI_ExecuteSRB(&good);
  EXPECT_EQ(SS_ERR, good.SRB_Status);
  EXPECT_EQ(0x02, good.SRB_TargStat);
}

TEST_F(ExecuteTest, IdePacketFailureReportsCheckConditionWithSense) {
  ide_->drive().FailNextWithSense(0x05, 0x24, 0);
  SRB_ExecSCSICmd srb = Block(kIdeAdapter, TestUnitReady());
  srb.SRB_SenseLen = 18;
  LongSenseBlock block;
  memset(&block, kSentinel, sizeof block);
  block.srb = srb;
  ASPI_ExecuteSRB(&block.srb);
  EXPECT_EQ(SS_ERR, block.srb.SRB_Status);
  EXPECT_EQ(0x02, block.srb.SRB_TargStat);
  EXPECT_EQ(kSentinel, block.srb.SRB_HaStat);
  EXPECT_EQ(10, ide_->lastSenseLengthByte);
  EXPECT_EQ(0x05, block.srb.SenseArea[2]);
  EXPECT_EQ(0x00, block.moreSense[1]);  // bytes 16 and 17 of the sense were copied
  EXPECT_EQ(kSentinel, block.moreSense[2]);
}

TEST_F(ExecuteTest, IdePacketSuccessLeavesTheTargetStatus) {
  SRB_ExecSCSICmd srb = Block(kIdeAdapter, Inquiry(), SRB_DIR_IN, 36);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_EQ(HASTAT_OK, srb.SRB_HaStat);
  EXPECT_EQ(kSentinel, srb.SRB_TargStat);
  EXPECT_EQ(0x05, data_[0]);
  EXPECT_EQ(CGC_DATA_READ, ide_->lastDataDirection);
  EXPECT_EQ(1, ide_->lastQuiet);
  EXPECT_EQ(-1, ide_->lastTimeout);
}

TEST_F(ExecuteTest, IdeRefusesCommandsLongerThanTwelveAndSendsTwelveForLengthZero) {
  SRB_ExecSCSICmd longCdb = Block(kIdeAdapter, std::vector<unsigned char>(16, 0x88));
  ASPI_ExecuteSRB(&longCdb);
  EXPECT_EQ(SS_INVALID_CMD, longCdb.SRB_Status);
  EXPECT_TRUE(world_.Opens().empty());

  SRB_ExecSCSICmd noLength = Block(kIdeAdapter, Inquiry(), SRB_DIR_IN, 36);
  noLength.SRB_CDBLen = 0;
  noLength.CDBByte[11] = 0x5C;
  ASPI_ExecuteSRB(&noLength);
  EXPECT_EQ(SS_COMP, noLength.SRB_Status);
  ASSERT_EQ(1u, ide_->drive().Commands().size());
  EXPECT_EQ(12u, ide_->drive().Commands()[0].cdb.size());
  EXPECT_EQ(0x5C, ide_->drive().Commands()[0].cdb[11]);
}

TEST_F(ExecuteTest, DeviceThatVanishesAfterItsOpenEndsAsNoDevice) {
  // The open of the node is the last step before the request locks the
  // device; removing the record there stands in for a rescan in between.
  sg_->onOpen = [] {
    DevicesMapHold hold;
    auto found = DevicesMap.find(SCSI_MakeDeviceKey(kScsiAdapter, 0, 1, 0));
    SCSI_DeleteDeviceProperties(found->second);
    DevicesMap.erase(found);
  };
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, TestUnitReady());
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_NO_DEVICE, srb.SRB_Status);
  EXPECT_TRUE(sg_->drive().Commands().empty());
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

// --- Direction and data ------------------------------------------------------

TEST_F(ExecuteTest, CommandsThatAlwaysReadGetTheInBitAdded) {
  for (unsigned char opcode : {0x12, 0x5A, 0xA4, 0xAD}) {
    SRB_ExecSCSICmd srb = Block(kScsiAdapter, {opcode, 0, 0, 0, 8, 0, 0, 0, 8, 0}, 0, 8);
    ASPI_ExecuteSRB(&srb);
    EXPECT_EQ(SRB_DIR_IN, srb.SRB_Flags) << int(opcode);
    EXPECT_EQ(8u, sg_->drive().Commands().back().dataInLength) << int(opcode);
  }
}

TEST_F(ExecuteTest, InquiryAskingForDataOutEndsWithoutADataPhase) {
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, Inquiry(), SRB_DIR_OUT, 36);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SRB_DIR_IN | SRB_DIR_OUT, srb.SRB_Flags);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_EQ(0u, sg_->drive().Commands()[0].dataInLength);
  EXPECT_TRUE(sg_->drive().Commands()[0].dataOut.empty());
  EXPECT_TRUE(DataUntouched());
}

TEST_F(ExecuteTest, ReadWithoutDirectionHasNoDataPhase) {
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, Read10(1), 0, EmulatedDrive::kBlockSize);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_EQ(0u, sg_->drive().Commands()[0].dataInLength);
  EXPECT_TRUE(DataUntouched());
  srb.SRB_BufPointer = nullptr;  // no data phase, so no buffer is needed
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
}

TEST_F(ExecuteTest, ReadWithDirectionInDeliversTheDiscData) {
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, Read10(2), SRB_DIR_IN, 2 * EmulatedDrive::kBlockSize);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  const std::vector<unsigned char>& disc = sg_->drive().disc;
  EXPECT_EQ(0, memcmp(data_, &disc[EmulatedDrive::kBlockSize], 2 * EmulatedDrive::kBlockSize));
  EXPECT_EQ(kSentinel, data_[2 * EmulatedDrive::kBlockSize]);
}

TEST_F(ExecuteTest, SendKeyWithoutDirectionSendsTheCallersData) {
  const unsigned char key[12] = {0, 10, 0, 0, 9, 8, 7, 6, 5, 0, 0, 0};
  memcpy(data_, key, sizeof key);
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, {0xA3, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0x01, 0}, 0, sizeof key);
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SRB_DIR_OUT, srb.SRB_Flags);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_EQ(std::vector<unsigned char>(key, key + sizeof key), sg_->drive().sentKey);
}

TEST_F(ExecuteTest, SixteenByteCommandSetsTheNextCommandLengthUnderTheLock) {
  std::vector<unsigned char> read16(16, 0);
  read16[0] = 0x88;
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, read16);
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
  SRB_ExecSCSICmd real = Block(kScsiAdapter, Inquiry(), SRB_DIR_IN, 36);
  ASPI_ExecuteSRB(&real);
  EXPECT_EQ(0x02, data_[2]);
  SRB_ExecSCSICmd emulated = Block(kEmulatedAdapter, Inquiry(), SRB_DIR_IN, 36);
  ASPI_ExecuteSRB(&emulated);
  EXPECT_EQ(0x00, data_[2]);
  emulated_->drive().ansiVersion = 0xF2;
  ASPI_ExecuteSRB(&emulated);
  EXPECT_EQ(0xF0, data_[2]);
}

// --- Sense limits --------------------------------------------------------------

TEST_F(ExecuteTest, GenericPathCopiesAtMostSixteenSenseBytes) {
  sg_->drive().FailNextWithSense(0x06, 0x28, 0);
  LongSenseBlock block;
  memset(&block, kSentinel, sizeof block);
  block.srb = Block(kScsiAdapter, TestUnitReady());
  block.srb.SRB_SenseLen = 32;
  ASPI_ExecuteSRB(&block.srb);
  EXPECT_EQ(0x70, block.srb.SenseArea[0]);
  EXPECT_EQ(0x00, block.srb.SenseArea[15]);
  EXPECT_EQ(kSentinel, block.moreSense[0]);
}

TEST_F(ExecuteTest, IdePathCopiesAtMostItsSixtyFourSenseBytes) {
  ide_->drive().FailNextWithSense(0x03, 0x11, 0);
  LongSenseBlock block;
  memset(&block, kSentinel, sizeof block);
  block.srb = Block(kIdeAdapter, TestUnitReady());
  block.srb.SRB_SenseLen = 100;
  ASPI_ExecuteSRB(&block.srb);
  EXPECT_EQ(56, ide_->lastSenseLengthByte);
  EXPECT_EQ(0x03, block.srb.SenseArea[2]);
  EXPECT_EQ(0x00, block.moreSense[47]);  // sense byte 63
  EXPECT_EQ(kSentinel, block.moreSense[48]);
}

// --- Completion ----------------------------------------------------------------

std::atomic<int> g_posts(0);
unsigned char g_statusSeenByPost = 0;
int g_descriptorsOpenAtPost = -1;
const fixture::FixtureWorld* g_world = nullptr;
void CountPost(SRB_ExecSCSICmd* srb) {
  ++g_posts;
  g_statusSeenByPost = srb->SRB_Status;
  g_descriptorsOpenAtPost = g_world->OpenDescriptorCount();
}

TEST_F(ExecuteTest, PostingFunctionRunsOnceWithTheFinalStatusOnEveryPath) {
  SRB_ExecSCSICmd good = Block(kScsiAdapter, TestUnitReady(), SRB_POSTING | SRB_EVENT_NOTIFY);
  SRB_ExecSCSICmd missing = Block(kScsiAdapter, TestUnitReady(), SRB_POSTING);
  missing.SRB_Target = 6;
  SRB_ExecSCSICmd refused = Block(kIdeAdapter, std::vector<unsigned char>(13, 0), SRB_POSTING);
  struct Row {
    SRB_ExecSCSICmd* srb;
    unsigned char status;
  } rows[] = {{&good, SS_COMP}, {&missing, SS_NO_DEVICE}, {&refused, SS_INVALID_CMD}};
  g_world = &world_;
  for (const Row& row : rows) {
    g_posts = 0;
    g_statusSeenByPost = 0;
    g_descriptorsOpenAtPost = -1;
    row.srb->SRB_PostProc = reinterpret_cast<void*>(&CountPost);
    ASPI_ExecuteSRB(row.srb);
    EXPECT_EQ(1, g_posts);
    EXPECT_EQ(row.status, g_statusSeenByPost);
    EXPECT_EQ(0, g_descriptorsOpenAtPost);  // closed before anyone is told
  }
}

TEST_F(ExecuteTest, EventIsSetBeforeTheRequestReturns) {
  CPosixEvent event(0, 1);
  SRB_ExecSCSICmd srb = Block(kIdeAdapter, TestUnitReady(), SRB_EVENT_NOTIFY);
  srb.SRB_PostProc = &event;
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(1, event.WaitForEvent(0));
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
}

// --- Descriptors and serialisation ---------------------------------------------

TEST_F(ExecuteTest, EveryOwnedDescriptorIsClosedOnSuccessAndFailurePaths) {
  const int before = world_.OpenDescriptorCount();
  for (int round = 0; round < 3; ++round) {
    SRB_ExecSCSICmd good = Block(kScsiAdapter, Inquiry(), SRB_DIR_IN, 36);
    ASPI_ExecuteSRB(&good);
    sg_->drive().FailNext(EmulatedDrive::Fault::ShortRead);
    SRB_ExecSCSICmd shortRead = Block(kScsiAdapter, TestUnitReady());
    ASPI_ExecuteSRB(&shortRead);
    sg_->drive().FailNextWithSense(0x06, 0x28, 0);
    SRB_ExecSCSICmd check = Block(kScsiAdapter, TestUnitReady());
    ASPI_ExecuteSRB(&check);
    SRB_ExecSCSICmd noCdb = Block(kScsiAdapter, {});
    ASPI_ExecuteSRB(&noCdb);
    SRB_ExecSCSICmd ideGood = Block(kIdeAdapter, Inquiry(), SRB_DIR_IN, 36);
    ASPI_ExecuteSRB(&ideGood);
    ide_->drive().FailNextWithSense(0x02, 0x3A, 0);
    SRB_ExecSCSICmd ideCheck = Block(kIdeAdapter, TestUnitReady());
    ASPI_ExecuteSRB(&ideCheck);
    EXPECT_EQ(SS_COMP, good.SRB_Status);
    EXPECT_EQ(SS_ERR, shortRead.SRB_Status);
    EXPECT_EQ(SS_ERR, check.SRB_Status);
    EXPECT_EQ(SS_INVALID_SRB, noCdb.SRB_Status);
    EXPECT_EQ(SS_COMP, ideGood.SRB_Status);
    EXPECT_EQ(SS_ERR, ideCheck.SRB_Status);
  }
  EXPECT_EQ(before, world_.OpenDescriptorCount());
  EXPECT_EQ(18u, world_.Opens().size());
}

TEST_F(ExecuteTest, DescriptorOfADriveHeldExclusivelyIsUsedAndKeptOpen) {
  const int held = kavo::os::Open("/dev/sg0", O_RDWR);
  {
    DevicesMapHold hold;
    OpenedDevicesMap[CBasicString<char>("/dev/sg0")] = new SCSI_RefCountedFileDesc{held, 1, false};
  }
  world_.ClearLogs();
  SRB_ExecSCSICmd srb = Block(kScsiAdapter, TestUnitReady());
  ASPI_ExecuteSRB(&srb);
  EXPECT_EQ(SS_COMP, srb.SRB_Status);
  EXPECT_TRUE(world_.Opens().empty());
  EXPECT_EQ(1, world_.OpenDescriptorCount());
  EXPECT_EQ(0, kavo::os::Close(held));
}

TEST_F(ExecuteTest, TwoThreadsOnOneDeviceAreSerialisedByItsLock) {
  EmulatedDrive& drive = sg_->drive();
  drive.CloseGate();
  SRB_ExecSCSICmd first = Block(kScsiAdapter, TestUnitReady());
  SRB_ExecSCSICmd second = Block(kScsiAdapter, Inquiry(), SRB_DIR_IN, 36);
  std::thread firstThread([&] { ASPI_ExecuteSRB(&first); });
  drive.WaitForWaiting(1);
  std::thread secondThread([&] { ASPI_ExecuteSRB(&second); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(1u, drive.Commands().size());  // the second waits for the device, not at the drive
  {
    DevicesMapHold hold;  // and the registry stays free meanwhile
  }
  drive.OpenGate();
  firstThread.join();
  secondThread.join();
  EXPECT_EQ(2u, drive.Commands().size());
  EXPECT_EQ(1, drive.MostConcurrentCommands());
  EXPECT_EQ(SS_COMP, first.SRB_Status);
  EXPECT_EQ(SS_COMP, second.SRB_Status);
  EXPECT_EQ(0, world_.OpenDescriptorCount());
}

}  // namespace
