// Requests racing holds, rebuilds and each other, alone or queued on a
// device's worker: every command reaches the drive its block names, whole,
// exactly once.
#include <string.h>

#include <atomic>
#include <thread>

#include "aspi/execute_internal.h"
#include "aspi/worker_internal.h"
#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "gtest/gtest.h"
#include "runtime/thread.h"
#include "tests/fixture/machines.h"
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
void PostAndStop(SRB_ExecSCSICmd* srb) { CountPost(srb), CThread::EndThread(0); }

// A READ(10) of bufLen bytes at lba, its command cut to cdbLength bytes;
// the machine's drives are at target 0, but for adapter 3's at target 4.
void Fill(Request& request, int adapter, unsigned int lba, unsigned int bufLen, unsigned char* data,
          unsigned char cdbLength = 10) {
  memset(&request, 0, sizeof request);
  SRB_ExecSCSICmd& srb = request.srb;
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_HaId = adapter, srb.SRB_Target = adapter == 3 ? 4 : 0;
  srb.SRB_Flags = SRB_POSTING | (bufLen != 0 ? SRB_DIR_IN : 0), srb.SRB_BufLen = bufLen, srb.SRB_BufPointer = data;
  srb.SRB_PostProc = reinterpret_cast<void*>(&CountPost), srb.SRB_CDBLen = cdbLength;
  const unsigned int read10[10] = {0x28, 0, lba >> 24, lba >> 16, lba >> 8, lba, 0, 0, bufLen / 2048, 0};
  for (int i = 0; i < cdbLength; ++i) srb.CDBByte[i] = static_cast<unsigned char>(read10[i]);
}
unsigned int LbaOf(const fixture::DriveCommand& command) {
  return command.cdb[2] << 24 | command.cdb[3] << 16 | command.cdb[4] << 8 | command.cdb[5];
}

// IDE drive hdc on adapter 0, /dev/sg0 on adapter 1, /dev/sg1 on adapter 3,
// registered by the real registry builder.
class RequestTest : public ::testing::Test {
 protected:
  RequestTest() : scope_(world_), machine_(fixture::BuildMachineWithEmulatedDrives(world_)) {
    world_.AddFile("/etc/mtab", "");
    IsKernel26 = 1;
    SCSI_BuildRegistry();
  }
  ~RequestTest() override { IsKernel26 = 0; }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
  fixture::DriveMachine machine_;
  EmulatedDrive* drives_[4] = {&machine_.ideDvd->drive(), &machine_.emulatedCd->drive(), nullptr,
                               &machine_.scsiCd->drive()};
};

TEST_F(RequestTest, EachReachesItsDriveWholeAndOnceWhileHoldsAndRebuildsComeAndGo) {
  ASSERT_EQ(0, ASPI_setExclusiveMode(1, 0));
  unsigned char data[EmulatedDrive::kBlockSize];
  Request request;
  enum { kShortCommandFirst, kReadInterrupted, kCountSaysScsi };
  const struct { const char* name; int before, adapter; size_t cdbLength; } rows[] = {
      {"a rejected 5-byte command leaves no length armed on the held drive", kShortCommandFirst, 1, 10},
      {"an interrupted read still gets its own reply", kReadInterrupted, 1, 10},
      {"the count says SCSI, the node is /dev/hdc", kCountSaysScsi, 0, 12},
  };
  for (const auto& row : rows) {
    if (row.before == kShortCommandFirst) Fill(request, 1, 7, 0, nullptr, 5), ASPI_ExecuteSRB(&request.srb);
    if (row.before == kReadInterrupted) drives_[1]->FailNext(EmulatedDrive::Fault::InterruptedRead);
    if (row.before == kCountSaysScsi) IdeAdapterCount = 0;
    Fill(request, row.adapter, 7, sizeof data, data);
    ASPI_ExecuteSRB(&request.srb);
    const std::vector<fixture::DriveCommand> got = drives_[row.adapter]->Commands();
    EXPECT_TRUE(request.srb.SRB_Status == SS_COMP && request.posts == 1 && !got.empty() &&
                got.back().cdb.size() == row.cdbLength && LbaOf(got.back()) == 7)
        << row.name;
  }
  ASPI_unsetExclusiveMode(1, 0);

  // Then requests, their thread and sequence number as LBA, while a drive is
  // taken and released and the registry rebuilt: a request that used a held
  // drive's descriptor number after an unset or a purge closed it would
  // write to whatever drive another thread opened under that number.
  const int adapters[] = {1, 1, 1, 3, 3, 0}, kThreads = 6, kRequests = 4000;
  std::vector<Request> requests(kThreads * kRequests);
  ASSERT_TRUE(FinishesWithin(milliseconds(100000), [&] {
    std::atomic<bool> done(false);
    std::thread holder([&] { while (!done) ASPI_setExclusiveMode(1, 0) == 0 && ASPI_unsetExclusiveMode(1, 0); });
    std::thread rebuilder([&] { while (!done) SCSI_BuildRegistry(), std::this_thread::sleep_for(milliseconds(1)); });
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
    rebuilder.join(), holder.join();
  }));
  int unposted = 0, crossed = 0;
  for (const Request& each : requests) unposted += each.posts != 1;
  for (int adapter : {0, 1, 3})
    for (const fixture::DriveCommand& command : drives_[adapter]->Commands())
      crossed += LbaOf(command) >> 16 != 0 && adapters[(LbaOf(command) >> 16) - 1] != adapter;
  EXPECT_EQ(0, unposted + crossed) << unposted << " not posted once, " << crossed << " on another drive";
}

TEST_F(RequestTest, AWorkerRecordPerDeviceRunsItsQueueInOrderOnItsOwnThread) {
  Request queued[3], opening;
  for (int adapter : {3, 2}) {  // registered, not; each opened again while its first open is under way
    Fill(opening, adapter, 0, 0, nullptr);
    ASPI_DEVICE_INFO* meanwhile = nullptr;
    bool again = true;
    machine_.scsiCd->onOpen = [&] { if (again) again = false, meanwhile = ASPI_OpenDevice(&opening.srb); };
    ASPI_DEVICE_INFO* opened = ASPI_OpenDevice(&opening.srb);
    machine_.scsiCd->onOpen = nullptr;
    EXPECT_TRUE(opened == meanwhile && opened == ASPI_OpenDevice(&opening.srb) && (adapter == 3) == (opened != 0));
    EXPECT_TRUE(AspiDeviceList.size() == 1 && world_.OpenDescriptorCount() == 1) << adapter;
  }
  for (int i = 0; i < 3; ++i) Fill(queued[i], 3, i + 1, 0, nullptr);
  queued[2].srb.SRB_PostProc = reinterpret_cast<void*>(&PostAndStop);
  ASPI_DEVICE_INFO* record = ASPI_OpenDevice(&queued[0].srb);
  CThread* worker = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
  record->QueueLock->Lock(0xFFFFFFFF);
  record->Queue->push_back(nullptr);
  for (Request& request : queued) record->Queue->push_back(&request.srb);
  record->QueueLock->Unlock();
  ASSERT_TRUE(FinishesWithin(milliseconds(10000), [worker] { delete worker; }));
  std::vector<unsigned int> lbas;
  for (const fixture::DriveCommand& command : drives_[3]->Commands()) lbas.push_back(LbaOf(command));
  EXPECT_EQ(std::vector<unsigned int>({1, 2, 3}), lbas);
  for (const Request& request : queued) EXPECT_TRUE(request.posts == 1 && request.srb.SRB_Status == SS_COMP);
}

}  // namespace
