// Per-device workers as an application runs them: a worker thread for each
// of two drives, reads queued on both, each completed on its drive's worker.
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "aspi/worker.h"
#include "runtime/thread.h"
#include "support.h"

namespace {

const int kDrives = 2, kReads = 8;
const unsigned kSectors = 4;

struct Request {
  SRB_ExecSCSICmd srb;  // first: the completion finds its request from the block
  CThread* postedOn;
  unsigned char data[kSectors * 2048];
};
Request requests[kDrives][kReads];
std::atomic<int> completed(0);

void Posted(SRB_ExecSCSICmd* srb) {
  reinterpret_cast<Request*>(srb)->postedOn = CThread::GetThread();
  ++completed;
}

}  // namespace

int main() {
  Machine vm;
  find_machine(&vm);
  Disc disc;
  check_group("workers");
  if (!check(vm.scsi && vm.atapi && load_disc(&disc), "the machine has its drives and the disc", "%d drives", vm.count))
    return check_finish();
  const Drive* drives[kDrives] = {vm.scsi, vm.atapi};
  CThread* workers[kDrives] = {};
  for (int d = 0; d < kDrives; ++d) {
    settle(drives[d]);
    for (int i = 0; i < kReads; ++i) {
      unsigned char cdb[10];
      cdb_read10(cdb, disc.data_lba + i * kSectors, kSectors);
      srb_init(&requests[d][i].srb, drives[d], SRB_DIR_IN | SRB_POSTING, requests[d][i].data, kSectors * 2048, cdb, 10);
      requests[d][i].srb.SRB_PostProc = reinterpret_cast<void*>(&Posted);
    }
    ASPI_DEVICE_INFO* record = ASPI_OpenDevice(&requests[d][0].srb);
    if (!check(record != nullptr, "each drive has a worker record", "none for %s", drives[d]->generic)) continue;
    workers[d] = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
    record->QueueLock->Lock(0xFFFFFFFF);
    for (Request& request : requests[d]) record->Queue->push_back(&request.srb);
    record->QueueLock->Unlock();
  }
  for (int waited = 0; completed < kDrives * kReads && waited < 60000; waited += 10) usleep(10000);
  for (int d = 0; d < kDrives; ++d) {
    int wrong = 0;
    unsigned char expected[kSectors * 2048];
    for (int i = 0; i < kReads; ++i)
      wrong += requests[d][i].postedOn != workers[d] || requests[d][i].srb.SRB_Status != SS_COMP ||
               !disc_sectors(disc.data_lba + i * kSectors, kSectors, expected) ||
               std::memcmp(expected, requests[d][i].data, sizeof expected) != 0;
    check(wrong == 0, "reads queued on a drive complete on its worker with the disc's data", "%s: %d of %d wrong",
          drives[d]->generic, wrong, kReads);
  }
  return check_finish();  // the workers idle until the process ends
}
