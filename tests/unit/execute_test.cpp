// Requests through the real command path against emulated drives with faults on demand; then racing
// holds, rebuilds and each other, alone or queued on a device's worker.
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <map>
#include <thread>

#include "aspi/execute_internal.h"
#include "aspi/worker_internal.h"
#include "device/registry_internal.h"
#include "device/transport.h"
#include "discovery/init_internal.h"
#include "gtest/gtest.h"
#include "runtime/thread.h"
#include "tests/fixture/emulated_drive.h"

namespace {

using fixture::EmulatedDrive;
using Fault = EmulatedDrive::Fault;
using Cdb = std::vector<unsigned char>;
// The "drives" machine: hdc on adapter 0, an emulated host's sg0 on adapter 1, sg1 at target 4 of adapter 3.
const unsigned char kIde = 0, kScsi = 3, kX = 0xAA;  // kX: what the library must leave alone
const Cdb kInquiry = {0x12, 0, 0, 0, 36, 0}, kTur = {0, 0, 0, 0, 0, 0};

// A block with room for sense beyond its own 16 bytes, and what its posts saw.
struct Request {
  SRB_ExecSCSICmd srb;  // first: the completion finds its request from the block
  unsigned char more[64];
  int posts, openAtPost;
  unsigned char statusAtPost;
};
const fixture::FixtureWorld* g_world;
void CountPost(SRB_ExecSCSICmd* srb) {
  Request* request = reinterpret_cast<Request*>(srb);
  ++request->posts, request->statusAtPost = srb->SRB_Status, request->openAtPost = g_world->OpenDescriptorCount();
}
// Ends the worker that runs it, the way an application can stop one.
void PostAndStop(SRB_ExecSCSICmd* srb) { CountPost(srb), CThread::EndThread(0); }

// A posting block for the drive at adapter (target 4 on adapter 3, else 0).
void Address(SRB_ExecSCSICmd& srb, unsigned char adapter, const Cdb& cdb, unsigned char flags) {
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_HaId = adapter, srb.SRB_Target = adapter == kScsi ? 4 : 0, srb.SRB_Lun = 0;
  srb.SRB_Flags = flags | SRB_POSTING;
  srb.SRB_PostProc = reinterpret_cast<void*>(&CountPost);
  srb.SRB_CDBLen = static_cast<unsigned char>(cdb.size());
  memset(srb.CDBByte, 0, sizeof srb.CDBByte);
  memcpy(srb.CDBByte, cdb.data(), std::min<size_t>(cdb.size(), 16));
}

class ExecuteTest : public ::testing::Test {
 protected:
  ExecuteTest() {
    world_.AddFile("/etc/mtab", "");
    fixture::BuildRegistry(world_, "drives");
    memset(data_, kX, sizeof data_);
    g_world = &world_;
  }
  // A block whose every byte the library may not write is kX.
  SRB_ExecSCSICmd& Make(unsigned char adapter, const Cdb& cdb, unsigned char flags, unsigned char senseLen = 0) {
    memset(&block_, kX, sizeof block_);
    Address(block_.srb, adapter, cdb, flags);
    block_.srb.SRB_SenseLen = senseLen, block_.srb.SRB_BufLen = 8, block_.srb.SRB_BufPointer = data_;
    return block_.srb;
  }
  // Runs the block: posted once, with its final status, after its descriptor is closed.
  std::string Run() {
    block_.posts = 0;
    EXPECT_EQ(static_cast<unsigned>(SS_PENDING), ASPI_ExecuteSRB(&block_.srb));
    EXPECT_TRUE(block_.posts == 1 && block_.statusAtPost == block_.srb.SRB_Status && block_.openAtPost == 0);
    const SRB_ExecSCSICmd& srb = block_.srb;
    char text[16];
    snprintf(text, sizeof text, "%02X %02X %02X", srb.SRB_Status, srb.SRB_HaStat, srb.SRB_TargStat);
    return text;
  }
  // The sense area and the bytes after it, as one run.
  unsigned char SenseByte(int at) const { return reinterpret_cast<const unsigned char*>(block_.srb.SenseArea)[at]; }
  bool DataUntouched() const { return std::count(data_, data_ + sizeof data_, kX) == sizeof data_; }

  fixture::IdeNode& Ide() { return fixture::DriveAt<fixture::IdeNode>(world_, "/dev/hdc"); }
  fixture::SgNode& Sg() { return fixture::DriveAt<fixture::SgNode>(world_, "/dev/sg1"); }

  fixture::FixtureWorld world_;
  Request block_;
  unsigned char data_[64];
};

// A request polling for a busy device's lock ends when the record leaves the registry meanwhile.
TEST_F(ExecuteTest, DeviceThatVanishesWhileItsLockIsBusyEndsAsNoDevice) {
  std::atomic<int> step(0);
  std::thread holder([&step] {
    CPosixMutex* lock = SCSI_LockDeviceLock(kScsi, 0, 4, 0);
    step = 1;
    while (step != 2) std::this_thread::yield();
    SCSI_UnlockDeviceLock(lock);
  });
  while (step != 1) std::this_thread::yield();
  Sg().onOpen = [] {
    DevicesMapHold hold;
    auto found = DevicesMap.find(SCSI_MakeDeviceKey(kScsi, 0, 4, 0));
    SCSI_DeleteDeviceProperties(found->second);
    DevicesMap.erase(found);
    return 0;
  };
  Make(kScsi, kTur, 0);
  EXPECT_EQ("82 AA AA", Run());
  step = 2;
  holder.join();
  EXPECT_TRUE(Sg().Commands().empty());
}

// Each request of its rows and what it ends with, in the block and at the drive.
TEST_F(ExecuteTest, RequestsEndAsTheirRowsSay) {
  const std::map<std::string, Fault> faults = {{"-", Fault::None}, {"busy", Fault::DriverBusy}, {"noopen", Fault::None},
      {"error", Fault::DriverError}, {"short", Fault::ShortRead}, {"eintr", Fault::InterruptedRead}};
  auto byte = [](const std::string& hex) {
    return static_cast<unsigned char>(hex == "-" ? 0xFF : std::stoi(hex, nullptr, 16));
  };
  for (const auto& row : fixture::Rows("rows/requests")) {
    SCOPED_TRACE(row[2] + " on adapter " + row[0]);
    const unsigned char adapter = static_cast<unsigned char>(fixture::Number(row[0]));
    const char* node = adapter == kIde ? "/dev/hdc" : adapter == 1 ? "/dev/sg0" : "/dev/sg1";
    EmulatedDrive& drive = fixture::DriveAt(world_, node);
    const size_t commands = drive.Commands().size();
    drive.FailNext(faults.at(row[7]), byte(row[8]), byte(row[9]));
    drive.onOpen = [&row] { return row[7] == "noopen" ? ENXIO : 0; };
    SRB_ExecSCSICmd& srb = Make(adapter, fixture::Hex<unsigned char>(row[2]), byte(row[4]),
                                static_cast<unsigned char>(fixture::Number(row[5])));
    srb.SRB_Target = static_cast<unsigned char>(fixture::Number(row[1]));
    if (row[3] != "-") srb.SRB_CDBLen = static_cast<unsigned char>(fixture::Number(row[3]));
    srb.SRB_BufLen = static_cast<unsigned int>(fixture::Number(row[6]));
    if (row[6].find("null") != std::string::npos) srb.SRB_BufPointer = nullptr;
    srb.SenseArea[0] = byte(row[10]), srb.SenseArea[2] = byte(row[11]);
    drive.TakeLog();
    EXPECT_EQ(row[13], Run());
    EXPECT_EQ(byte(row[14]) | 0x01, srb.SRB_Flags);
    const std::string log = drive.TakeLog();
    EXPECT_TRUE(row[15] != "-" || (drive.Commands().size() == commands && DataUntouched())) << "reached nothing";
    if (row[15] == "-") continue;
    const fixture::DriveCommand command = drive.Commands().back();
    EXPECT_EQ(fixture::Hex<unsigned char>(row[15]), command.cdb);
    EXPECT_EQ(fixture::Number(row[16]), static_cast<long long>(command.dataInLength));
    EXPECT_EQ(fixture::Number(row[17]), static_cast<long long>(command.dataOut.size()));
    if (adapter == kIde)  // also quiet, and without a timeout of its own
      EXPECT_TRUE(Ide().lastSenseLengthByte == fixture::Number(row[18]) && log.find(" 1 -1 ") != std::string::npos);
    else EXPECT_EQ(row[18] == "-" ? "" : "2283:" + row[18] + " ", log.substr(std::min(log.find("2283:"), log.size())));
    if (row.size() > 19) {
      EXPECT_EQ(fixture::Hex<unsigned char>(row[19]), Cdb(data_, data_ + row[19].size() / 3 + 1));
    }
    if (row[7] != "-" && row[7] != "eintr") {
      EXPECT_EQ(kX, SenseByte(0));
      EXPECT_TRUE(DataUntouched());
    }
    if (row[9] == "-" || srb.SRB_SenseLen == 0) continue;
    const int copied = std::min<int>(srb.SRB_SenseLen, adapter == kIde ? 64 : 16);
    EXPECT_TRUE(SenseByte(2) == byte(row[9]) && SenseByte(12) == 0x28);
    EXPECT_TRUE(SenseByte(copied - 1) == 0x00 && SenseByte(copied) == kX) << copied << " sense bytes";
  }
  for (const auto& e : DevicesMap)  // no request left its device locked
    std::thread([&e] { EXPECT_TRUE(e.second->DeviceLock->Lock(0) && e.second->DeviceLock->Unlock()); }).join();
}

// A device type is the inquiry's without the qualifier; other commands are refused untouched; events are set.
TEST_F(ExecuteTest, EntryPointAnswersDeviceTypesAndRefusesOtherCommands) {
  for (unsigned char ha : {kIde, kScsi, kX}) {  // kX: adapter 3 with the caller's data-out bit, kept: no data
    SRB_GDEVBlock type = {};
    type.SRB_Cmd = 0x01, type.SRB_HaId = ha == kIde ? kIde : kScsi, type.SRB_Target = ha == kIde ? 0 : 4;
    type.SRB_Flags = ha == kX ? 0x10 : 0;
    EXPECT_EQ(0x01u, SendASPI32Command(&type));
    EXPECT_EQ(ha == kX ? 0x00 : 0x15, type.SRB_DeviceType);
    const Cdb cdb = fixture::DriveAt(world_, ha == kIde ? "/dev/hdc" : "/dev/sg1").Commands().back().cdb;
    EXPECT_EQ((Cdb{0x12, 0, 0, 0, 200, 0}), Cdb(cdb.begin(), cdb.begin() + 6)) << "INQUIRY of 200 bytes";
  }
  unsigned char other[16] = {0x03, kX};
  EXPECT_TRUE(SendASPI32Command(other) == 0xE0 && other[1] == kX);
  CPosixEvent done(0, 0);  // SRB_EVENT_NOTIFY (0x40) without SRB_POSTING sets the event
  Make(kScsi, kInquiry, 0x08).SRB_Flags = 0x48, block_.srb.SRB_PostProc = &done;
  EXPECT_TRUE(ASPI_ExecuteSRB(&block_.srb) == 0 && done.WaitForEvent(0) == 1 && block_.srb.SRB_Status == 0x01);
  IdeAdapterCount = 0;  // the path follows the registered node, whatever the count says
  Make(kIde, kInquiry, 0x08);
  EXPECT_EQ("01 00 AA", Run());
}

// A held node's descriptor serves only its own requests: sg1 (target 1) and sg10 (target 0) of "many_generic".
TEST(HeldDescriptor, ServesOnlyRequestsForItsOwnNode) {
  for (const unsigned char held : {0, 1}) {
    fixture::FixtureWorld world;
    fixture::BuildRegistry(world, "many_generic");
    g_world = &world;
    ASSERT_EQ(0, ASPI_setExclusiveMode(0, held));
    std::string reached;
    for (const unsigned char target : {0, 1}) {
      Request request = {};
      Address(request.srb, 0, kTur, 0), request.srb.SRB_Target = target;
      ASPI_ExecuteSRB(&request.srb);
      for (const char* node : {"/dev/sg10", "/dev/sg1"})
        reached += std::to_string(fixture::DriveAt(world, node).Commands().size());
    }
    EXPECT_EQ("1011", reached) << "sg10 then sg1, each after a request for target 0 and for target 1; held: "
                               << int(held);
    ASPI_unsetExclusiveMode(0, held);
  }
}

// A READ(10) of bufLen bytes at lba.
void Fill(Request& request, unsigned char adapter, unsigned int lba, unsigned int bufLen, unsigned char* data) {
  memset(&request, 0, sizeof request);
  const Cdb read = {0x28, 0, static_cast<unsigned char>(lba >> 24), static_cast<unsigned char>(lba >> 16),
                    static_cast<unsigned char>(lba >> 8), static_cast<unsigned char>(lba), 0, 0,
                    static_cast<unsigned char>(bufLen / EmulatedDrive::kBlockSize), 0};
  Address(request.srb, adapter, read, bufLen != 0 ? SRB_DIR_IN : 0);
  request.srb.SRB_BufLen = bufLen;
  request.srb.SRB_BufPointer = data;
}
unsigned int LbaOf(const fixture::DriveCommand& command) {
  return command.cdb[2] << 24 | command.cdb[3] << 16 | command.cdb[4] << 8 | command.cdb[5];
}

// Requests (thread and number as LBA) while a drive is taken and released and the registry rebuilt: one
// using a held descriptor's number after an unset closed it would reach whichever drive got it next.
TEST_F(ExecuteTest, EachReachesItsOwnDriveWhileHoldsAndRebuildsComeAndGo) {
  const unsigned char adapters[] = {1, 1, 1, 3, 3, 0};
  const int kThreads = 6, kRequests = 20000;
  std::vector<Request> requests(kThreads * kRequests);
  std::atomic<bool> done(false);
  std::thread holder([&] {
    while (!done)
      if (ASPI_setExclusiveMode(1, 0) == 0) ASPI_unsetExclusiveMode(1, 0);
  });
  std::thread rebuilder([&] {
    while (!done) {
      SCSI_BuildRegistry();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::vector<unsigned char> buffer(32 * EmulatedDrive::kBlockSize);
      for (int seq = 0; seq < kRequests; ++seq) {
        Fill(requests[t * kRequests + seq], adapters[t], (t + 1) << 16 | seq, buffer.size(), buffer.data());
        ASPI_ExecuteSRB(&requests[t * kRequests + seq].srb);
      }
    });
  for (std::thread& thread : threads) thread.join();
  done = true;
  rebuilder.join();
  holder.join();
  int wrong = 0;  // posted other than once, failed but by a vanished device, or sent to another thread's drive
  for (const Request& each : requests)
    wrong += each.posts != 1 || (each.srb.SRB_Status != SS_COMP && each.srb.SRB_Status != SS_NO_DEVICE);
  for (unsigned char adapter : {0, 1, 3}) {
    const char* node = adapter == 0 ? "/dev/hdc" : adapter == 1 ? "/dev/sg0" : "/dev/sg1";
    for (const fixture::DriveCommand& command : fixture::DriveAt(world_, node).Commands())
      wrong += LbaOf(command) >> 16 != 0 && adapters[(LbaOf(command) >> 16) - 1] != adapter;
  }
  EXPECT_EQ("0 0", std::to_string(wrong) + " " + std::to_string(world_.OpenDescriptorCount())) << "wrong, left open";
}

TEST_F(ExecuteTest, AWorkerRecordPerDeviceRunsItsQueueInOrderOnItsOwnThread) {
  Request queued[3];
  for (int i = 0; i < 3; ++i) Fill(queued[i], kScsi, i + 1, 0, nullptr);
  queued[2].srb.SRB_PostProc = reinterpret_cast<void*>(&PostAndStop);
  ASPI_DEVICE_INFO* meanwhile = nullptr;  // opened again while the first open is under way
  bool again = true;
  Sg().onOpen = [&] {
    if (again) {
      again = false;
      meanwhile = ASPI_OpenDevice(&queued[1].srb);
    }
    return 0;
  };
  ASPI_DEVICE_INFO* record = ASPI_OpenDevice(&queued[0].srb);
  ASSERT_TRUE(record != nullptr && record == meanwhile && record == ASPI_OpenDevice(&queued[2].srb));
  queued[0].srb.SRB_Lun = 1;
  EXPECT_EQ(nullptr, ASPI_OpenDevice(&queued[0].srb)) << "a record is one LUN's";
  queued[0].srb.SRB_Lun = 0;
  EXPECT_NE(std::string::npos, Sg().TakeLog().find("2201:10800000 2201:30000 ")) << "a worker waits 300 s a command";
  EXPECT_EQ(-1, SCSI_LinuxSetTimeout(-1, 30000)) << "the ioctl's result";
  EXPECT_TRUE(AspiDeviceList.size() == 1 && world_.OpenDescriptorCount() == 1);
  CThread* worker = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
  record->QueueLock->Lock(0xFFFFFFFF);
  record->Queue->push_back(nullptr);
  for (Request& request : queued) record->Queue->push_back(&request.srb);
  record->QueueLock->Unlock();
  delete worker;  // waits for the worker's end
  const std::vector<fixture::DriveCommand> ran = Sg().Commands();
  ASSERT_EQ(3u, ran.size());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(LbaOf(ran[i]) == i + 1u && queued[i].posts == 1) << i;
}

}  // namespace
