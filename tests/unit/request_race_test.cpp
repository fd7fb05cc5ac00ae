// Requests racing holds, rebuilds and each other: every command reaches the
// drive its block names, whole, exactly once.
#include <limits.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <thread>

#include "aspi/execute_internal.h"
#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "gtest/gtest.h"
#include "tests/fixture/emulated_drive.h"
#include "tests/unit/watchdog.h"

namespace {

using fixture::EmulatedDrive;
using Cdb = std::vector<unsigned char>;

struct Request {
  SRB_ExecSCSICmd srb;
  int posts;  // by CountPost
};
void CountPost(SRB_ExecSCSICmd* srb) { ++reinterpret_cast<Request*>(srb)->posts; }

Cdb Read10(unsigned int lba, unsigned char blocks) {
  return {0x28, 0, Cdb::value_type(lba >> 24), Cdb::value_type(lba >> 16), Cdb::value_type(lba >> 8),
          Cdb::value_type(lba), 0, 0, blocks, 0};
}
unsigned int LbaOf(const fixture::DriveCommand& command) {
  return command.cdb[2] << 24 | command.cdb[3] << 16 | command.cdb[4] << 8 | command.cdb[5];
}

void Fill(Request& request, unsigned char adapter, unsigned char target, const Cdb& cdb, unsigned int bufLen,
          unsigned char* data) {
  memset(&request, 0, sizeof request);
  request.srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  request.srb.SRB_HaId = adapter;
  request.srb.SRB_Target = target;
  request.srb.SRB_Flags = SRB_POSTING | (bufLen != 0 ? SRB_DIR_IN : 0);
  request.srb.SRB_BufLen = bufLen;
  request.srb.SRB_BufPointer = data;
  request.srb.SRB_CDBLen = static_cast<unsigned char>(cdb.size());
  request.srb.SRB_PostProc = reinterpret_cast<void*>(&CountPost);
  memcpy(request.srb.CDBByte, cdb.data(), cdb.size());
}

// IDE drive hdc on adapter 0, /dev/sg0 on adapter 1 (target 0), /dev/sg1 on
// adapter 3 (target 4), built by the real registry builder.
class RequestRaceTest : public ::testing::Test {
 protected:
  RequestRaceTest() : scope_(world_) {
    world_.Load("drives");
    world_.AddFile("/etc/mtab", "");
    IsKernel26 = 1;
    SCSI_BuildRegistry();
  }
  ~RequestRaceTest() override { IsKernel26 = 0; }

  fixture::FixtureWorld world_;
  fixture::FixtureWorld::Scope scope_;
  fixture::RegistryReset registry_;
};

TEST_F(RequestRaceTest, EachRequestReachesItsDriveWithItsWholeCommand) {
  ASSERT_EQ(0, ASPI_setExclusiveMode(1, 0));
  unsigned char data[EmulatedDrive::kBlockSize];
  struct Row {
    const char* name;
    std::function<void()> before;
    unsigned char adapter, target;
    unsigned int bufLen;
    unsigned char status;
    EmulatedDrive* drive;  // that must have got the command, null for none
    size_t cdbLength;
  } rows[] = {
      {"a rejected 5-byte command leaves no length armed on the held drive", [] {
         Request shortCdb;
         Fill(shortCdb, 1, 0, Cdb(5, 0x28), 0, nullptr);
         ASPI_ExecuteSRB(&shortCdb.srb);
       }, 1, 0, EmulatedDrive::kBlockSize, SS_COMP, &fixture::DriveAt(world_, "/dev/sg0"), 10},
      {"an interrupted read still gets its own reply", [this] {
         fixture::DriveAt(world_, "/dev/sg0").FailNext(EmulatedDrive::Fault::InterruptedRead);
       }, 1, 0, EmulatedDrive::kBlockSize, SS_COMP, &fixture::DriveAt(world_, "/dev/sg0"), 10},
      {"a length the reply header cannot carry", [] {}, 3, 4, INT_MAX - 35, SS_INVALID_SRB, nullptr, 0},
      {"the count says IDE, the node is /dev/sg0", [] { IdeAdapterCount = 2; }, 1, 0, 0, SS_COMP,
       &fixture::DriveAt(world_, "/dev/sg0"), 10},
      {"the count says SCSI, the node is /dev/hdc", [] { IdeAdapterCount = 0; }, 0, 0, 0, SS_COMP,
       &fixture::DriveAt(world_, "/dev/hdc"), 12},
  };
  for (Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.before();
    Request request;
    Fill(request, row.adapter, row.target, Read10(7, row.bufLen != 0), row.bufLen, data);
    ASPI_ExecuteSRB(&request.srb);
    EXPECT_EQ(row.status, request.srb.SRB_Status);
    EXPECT_EQ(1, request.posts);
    if (row.drive == nullptr) continue;
    ASSERT_FALSE(row.drive->Commands().empty());
    EXPECT_EQ(row.cdbLength, row.drive->Commands().back().cdb.size());
    EXPECT_EQ(7u, LbaOf(row.drive->Commands().back()));
  }
  EXPECT_TRUE(fixture::DriveAt(world_, "/dev/sg1").Commands().empty());  // the refused length reached nothing
}

// Requests on a drive that another thread holds and releases, and on the
// other drives, while the registry is rebuilt under them. Each command
// carries its thread and sequence number as its LBA. A request that used a
// held drive's descriptor number after an unset or a purge closed it would
// write to whatever drive another thread opened under that number.
TEST_F(RequestRaceTest, CommandsReachTheirOwnDriveWhileHoldsAndRebuildsComeAndGo) {
  const int kRequests = 4000;
  struct Requester {
    unsigned char adapter, target;
    EmulatedDrive* drive;
  } requesters[] = {{1, 0, &fixture::DriveAt(world_, "/dev/sg0")}, {1, 0, &fixture::DriveAt(world_, "/dev/sg0")},
                    {1, 0, &fixture::DriveAt(world_, "/dev/sg0")}, {3, 4, &fixture::DriveAt(world_, "/dev/sg1")},
                    {3, 4, &fixture::DriveAt(world_, "/dev/sg1")},     {0, 0, &fixture::DriveAt(world_, "/dev/hdc")}};
  const int kThreads = sizeof requesters / sizeof requesters[0];
  std::vector<Request> requests(kThreads * kRequests);
  ASSERT_TRUE(FinishesWithin(std::chrono::seconds(100), [&] {
    std::atomic<bool> done(false);
    std::thread holder([&] {
      while (!done) {
        if (ASPI_setExclusiveMode(1, 0) == 0) ASPI_unsetExclusiveMode(1, 0);
      }
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
          Request& request = requests[t * kRequests + seq];
          Fill(request, requesters[t].adapter, requesters[t].target, Read10((t + 1) << 16 | seq, 32), buffer.size(),
               buffer.data());
          ASPI_ExecuteSRB(&request.srb);
        }
      });
    for (std::thread& thread : threads) thread.join();
    done = true;
    rebuilder.join();
    holder.join();
  }));
  for (const Request& request : requests) EXPECT_EQ(1, request.posts);
  int crossed = 0, delivered = 0;
  for (const Requester& requester : {requesters[0], requesters[3], requesters[5]})
    for (const fixture::DriveCommand& command : requester.drive->Commands()) {
      ++delivered;
      if (requesters[(LbaOf(command) >> 16) - 1].drive != requester.drive) ++crossed;
    }
  EXPECT_EQ(0, crossed) << "of " << delivered;
}

}  // namespace
