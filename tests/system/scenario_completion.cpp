// Completion as applications learn of it: a posting function, a CPosixEvent,
// and several threads reading one drive at once.
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "runtime/sync.h"
#include "support.h"

namespace {

struct Posting {
  int calls = 0;
  unsigned char status_seen = 0xFF;
  unsigned char first_byte_seen = 0;
};
Posting posting;

void PostProc(SRB_ExecSCSICmd* srb) {
  ++posting.calls;
  posting.status_seen = srb->SRB_Status;
  posting.first_byte_seen = srb->SRB_BufPointer[0];
}

void CheckPosting(const Drive* drive, const Disc& disc) {
  std::vector<unsigned char> got(2048), expected(2048);
  unsigned char cdb[10];
  SRB_ExecSCSICmd srb;
  cdb_read10(cdb, disc.data_lba, 1);
  srb_init(&srb, drive, SRB_DIR_IN | SRB_POSTING, got.data(), 2048, cdb, 10);
  srb.SRB_PostProc = reinterpret_cast<void*>(&PostProc);
  posting = Posting();
  unsigned result = SendASPI32Command(&srb);
  disc_sectors(disc.data_lba, 1, expected.data());
  check(result == SS_PENDING && posting.calls == 1, "the posting function ran once before the call returned",
        "result %#x, %d calls", result, posting.calls);
  check(posting.status_seen == SS_COMP && posting.first_byte_seen == expected[0] && got == expected,
        "the posting function saw the final status and the data", "status seen %#x", posting.status_seen);
}

void CheckEvent(const Drive* drive, const Disc& disc) {
  std::vector<unsigned char> got(2048), expected(2048);
  unsigned char cdb[10];
  SRB_ExecSCSICmd srb;
  CPosixEvent event(0, 0);
  cdb_read10(cdb, disc.readme_lba, 1);
  srb_init(&srb, drive, SRB_DIR_IN | SRB_EVENT_NOTIFY, got.data(), 2048, cdb, 10);
  srb.SRB_PostProc = &event;
  check(event.WaitForEvent(0) == 0, "a new event is not set", "it was");
  unsigned result = SendASPI32Command(&srb);
  disc_sectors(disc.readme_lba, 1, expected.data());
  check(result == SS_PENDING && event.WaitForEvent(0) == 1, "the event is set when the call returns",
        "result %#x", result);
  check(srb.SRB_Status == SS_COMP && got == expected, "the request behind the event is complete",
        "status %#x", srb.SRB_Status);
  check(event.WaitForEvent(0) == 0, "an automatic event is reset by the wait", "still set");

  // Posting takes precedence: with both flags only the function is called.
  CPosixEvent unused(0, 0);
  srb_init(&srb, drive, SRB_DIR_IN | SRB_POSTING | SRB_EVENT_NOTIFY, got.data(), 2048, cdb, 10);
  srb.SRB_PostProc = reinterpret_cast<void*>(&PostProc);
  posting = Posting();
  SendASPI32Command(&srb);
  check(posting.calls == 1 && srb.SRB_Status == SS_COMP, "with both flags the function is called",
        "%d calls, status %#x", posting.calls, srb.SRB_Status);
}

struct Reader {
  const Drive* drive;
  unsigned first_lba;
  unsigned sectors;
  int rounds;
  int bad;
};

void* ReadAll(void* argument) {
  Reader* reader = static_cast<Reader*>(argument);
  std::vector<unsigned char> got(reader->sectors * 2048), expected(reader->sectors * 2048);
  for (int round = 0; round < reader->rounds; ++round) {
    unsigned lba = reader->first_lba + static_cast<unsigned>(round) * reader->sectors;
    std::memset(got.data(), 0, got.size());
    unsigned char status = aspi_read10(reader->drive, lba, reader->sectors, got.data());
    if (status != SS_COMP || !disc_sectors(lba, reader->sectors, expected.data()) || got != expected)
      ++reader->bad;
  }
  return nullptr;
}

// Requests from several threads to one drive each get their own data back.
// A held drive has one descriptor for all of them, where the driver hands
// a reply to whichever thread reads first: only the device's lock keeps
// each thread's write and read together.
void CheckConcurrentReads(const Drive* drive, const Disc& disc, const char* how) {
  const int threads = 4;
  Reader readers[threads];
  pthread_t ids[threads];
  for (int i = 0; i < threads; ++i) {
    readers[i] = Reader{drive, disc.data_lba + static_cast<unsigned>(i) * 200, 8, 20, 0};
    pthread_create(&ids[i], nullptr, ReadAll, &readers[i]);
  }
  int bad = 0;
  for (int i = 0; i < threads; ++i) {
    pthread_join(ids[i], nullptr);
    bad += readers[i].bad;
  }
  char what[128];
  std::snprintf(what, sizeof what, "4 threads x 20 reads on %s (%s) at once all return their own sectors",
                drive->generic, how);
  check(bad == 0, what, "%d reads wrong", bad);
}

}  // namespace

int main() {
  Machine vm;
  find_machine(&vm);
  Disc disc;
  check_group("completion");
  if (!check(vm.scsi && vm.atapi && load_disc(&disc), "the machine has its drives and the disc", "%d drives", vm.count))
    return check_finish();
  settle(vm.scsi);
  settle(vm.atapi);
  CheckPosting(vm.scsi, disc);
  CheckEvent(vm.atapi, disc);
  check_group("threads");
  CheckConcurrentReads(vm.scsi, disc, "not held");
  CheckConcurrentReads(vm.atapi, disc, "not held");
  for (const Drive* drive : {vm.scsi, vm.atapi}) {
    if (!check(ASPI_setExclusiveMode(drive->host, drive->target) == 0, "the drive is taken for the threads",
               "failed"))
      continue;
    CheckConcurrentReads(drive, disc, "held");
    ASPI_unsetExclusiveMode(drive->host, drive->target);
  }
  return check_finish();
}
