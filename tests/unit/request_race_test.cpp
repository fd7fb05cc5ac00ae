// Requests racing holds, rebuilds and each other, alone or queued on a
// device's worker: each command reaches its drive whole, exactly once.
#include <string.h>

#include <array>
#include <atomic>
#include <thread>

#include "aspi/execute_internal.h"
#include "aspi/worker_internal.h"
#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "gtest/gtest.h"
#include "runtime/thread.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/unit/watchdog.h"

namespace {

using fixture::EmulatedDrive;
using std::chrono::milliseconds;

struct Request {
  SRB_ExecSCSICmd srb;  // first: the completion finds its request from the block
  int posts;
};
void CountPost(SRB_ExecSCSICmd* srb) { ++reinterpret_cast<Request*>(srb)->posts; }
// Ends the worker that runs it, the way an application can stop one.
void PostAndStop(SRB_ExecSCSICmd* srb) {
  CountPost(srb);
  CThread::EndThread(0);
}

// A READ(10) of bufLen bytes at lba; the drive of adapter 3 is at target 4.
void Fill(Request& request, int adapter, unsigned int lba, unsigned int bufLen, unsigned char* data) {
  memset(&request, 0, sizeof request);
  SRB_ExecSCSICmd& srb = request.srb;
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = adapter;
  srb.SRB_Target = adapter == 3 ? 4 : 0;
  srb.SRB_Flags = SRB_POSTING | (bufLen != 0 ? SRB_DIR_IN : 0);
  srb.SRB_BufLen = bufLen;
  srb.SRB_BufPointer = data;
  srb.SRB_PostProc = reinterpret_cast<void*>(&CountPost);
  srb.SRB_CDBLen = 10;
  srb.CDBByte[0] = 0x28;
  srb.CDBByte[8] = bufLen / 2048;
  for (int i = 0; i < 4; ++i) srb.CDBByte[2 + i] = static_cast<unsigned char>(lba >> (24 - 8 * i));
}
unsigned int LbaOf(const fixture::DriveCommand& command) {
  return command.cdb[2] << 24 | command.cdb[3] << 16 | command.cdb[4] << 8 | command.cdb[5];
}

// hdc on adapter 0, /dev/sg0 on adapter 1, /dev/sg1 on adapter 3, registered by the real builder.
class RequestTest : public ::testing::Test {
 protected:
  RequestTest() : scope_(world_) {
    world_.Load("drives");
    drives_ = {&fixture::DriveAt(world_, "/dev/hdc"), &fixture::DriveAt(world_, "/dev/sg0"), nullptr,
               &fixture::DriveAt(world_, "/dev/sg1")};
    world_.AddFile("/etc/mtab", "");
    IsKernel26 = 1;
    SCSI_BuildRegistry();
  }
  ~RequestTest() override { IsKernel26 = 0; }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
  std::array<EmulatedDrive*, 4> drives_;  // by adapter
};

// A rejected short command on a held drive is the system tests' row.
TEST_F(RequestTest, EachReachesItsDriveWholeAndOnce) {
  unsigned char data[EmulatedDrive::kBlockSize];
  const struct { const char* name; bool interrupted; int ideAdapters, adapter; size_t cdbLength; } rows[] = {
      {"an interrupted read still gets its own reply", true, 1, 1, 10},
      {"the count says SCSI, the node is /dev/hdc", false, 0, 0, 12},
  };
  for (const auto& row : rows) {
    if (row.interrupted) drives_[1]->FailNext(EmulatedDrive::Fault::InterruptedRead);
    IdeAdapterCount = row.ideAdapters;
    Request request;
    Fill(request, row.adapter, 7, sizeof data, data);
    ASPI_ExecuteSRB(&request.srb);
    const std::vector<fixture::DriveCommand> got = drives_[row.adapter]->Commands();
    EXPECT_TRUE(request.srb.SRB_Status == SS_COMP && request.posts == 1 && !got.empty() &&
                got.back().cdb.size() == row.cdbLength && LbaOf(got.back()) == 7)
        << row.name;
  }
}

// Requests, their thread and number as LBA, while a drive is taken and released
// and the registry rebuilt: one that used a held drive's descriptor number
// after an unset closed it would write to whatever drive got it next.
TEST_F(RequestTest, EachReachesItsOwnDriveWhileHoldsAndRebuildsComeAndGo) {
  const int adapters[] = {1, 1, 1, 3, 3, 0}, kThreads = 6, kRequests = 4000;
  std::vector<Request> requests(kThreads * kRequests);
  ASSERT_TRUE(FinishesWithin(milliseconds(100000), [&] {
    std::atomic<bool> done(false);
    std::thread holder([&] {
      while (!done)
        if (ASPI_setExclusiveMode(1, 0) == 0) ASPI_unsetExclusiveMode(1, 0);
    });
    std::thread rebuilder([&] {
      while (!done) {
        SCSI_BuildRegistry();
        std::this_thread::sleep_for(milliseconds(1));
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
  }));
  int wrong = 0;  // posted other than once, or sent to another thread's drive
  for (const Request& each : requests) wrong += each.posts != 1;
  for (int adapter : {0, 1, 3})
    for (const fixture::DriveCommand& command : drives_[adapter]->Commands())
      wrong += LbaOf(command) >> 16 != 0 && adapters[(LbaOf(command) >> 16) - 1] != adapter;
  EXPECT_EQ(0, wrong);
}

TEST_F(RequestTest, AWorkerRecordPerDeviceRunsItsQueueInOrderOnItsOwnThread) {
  Request queued[3];
  for (int i = 0; i < 3; ++i) Fill(queued[i], 3, i + 1, 0, nullptr);
  queued[2].srb.SRB_PostProc = reinterpret_cast<void*>(&PostAndStop);
  ASPI_DEVICE_INFO* meanwhile = nullptr;  // opened again while the first open is under way
  bool again = true;
  std::static_pointer_cast<fixture::SgNode>(world_.Node("/dev/sg1"))->onOpen = [&] {
    if (!again) return;
    again = false;
    meanwhile = ASPI_OpenDevice(&queued[1].srb);
  };
  ASPI_DEVICE_INFO* record = ASPI_OpenDevice(&queued[0].srb);
  ASSERT_TRUE(record != nullptr && record == meanwhile && record == ASPI_OpenDevice(&queued[2].srb));
  EXPECT_TRUE(AspiDeviceList.size() == 1 && world_.OpenDescriptorCount() == 1);
  CThread* worker = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
  record->QueueLock->Lock(0xFFFFFFFF);
  record->Queue->push_back(nullptr);
  for (Request& request : queued) record->Queue->push_back(&request.srb);
  record->QueueLock->Unlock();
  ASSERT_TRUE(FinishesWithin(milliseconds(10000), [worker] { delete worker; }));
  const std::vector<fixture::DriveCommand> ran = drives_[3]->Commands();
  ASSERT_EQ(3u, ran.size());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(LbaOf(ran[i]) == i + 1u && queued[i].posts == 1) << i;
}

}  // namespace
