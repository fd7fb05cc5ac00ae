// Requests that race holds and other programs, one row a race, each
// counting what went wrong: a rejected command leaves nothing behind on a
// held drive, reads stay right while the drive is taken and released under
// them, and a drive another program holds answers at once instead of
// stalling everyone.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "support.h"

namespace {

Disc disc;
const Drive *held, *other;  // the SCSI CD drive, the ATAPI DVD drive
std::atomic<bool> stop(false);

// A read of the sector at lba that completes with other data, or that
// fails when it must complete.
int WrongRead(const Drive* drive, unsigned lba, bool mustComplete) {
  unsigned char got[2048], expected[2048];
  if (aspi_read10(drive, lba, 1, got) != SS_COMP) return mustComplete;
  return !disc_sectors(lba, 1, expected) || memcmp(got, expected, 2048) != 0;
}

int ShortCommandOnAHeldDrive() {
  const unsigned char cdb[5] = {0x28};
  SRB_ExecSCSICmd srb;
  int wrong = ASPI_setExclusiveMode(held->host, held->target) != 0;
  srb_init(&srb, held, 0, nullptr, 0, cdb, 5), SendASPI32Command(&srb);
  wrong += WrongRead(held, disc.readme_lba, true);
  return wrong + (ASPI_unsetExclusiveMode(held->host, held->target) != 0);
}

int ReadsWhileTakenAndReleased() {
  std::atomic<int> wrong(0);
  auto reader = [&wrong](const Drive* drive) {
    for (unsigned n = 0; !stop; ++n) wrong += WrongRead(drive, disc.data_lba + n % 64, false);
  };
  std::thread readers[] = {std::thread(reader, held), std::thread(reader, held), std::thread(reader, other)};
  for (int i = 0; i < 300; ++i)
    if (ASPI_setExclusiveMode(held->host, held->target) == 0) ASPI_unsetExclusiveMode(held->host, held->target);
  stop = true;
  for (std::thread& thread : readers) thread.join();
  return wrong;
}

// Another program holds the DVD drive: the generic driver would make an
// open without O_NONBLOCK wait for it. It lets go on its own after 5 s, so
// that a library that waits shows as a request that completes late.
int ADriveAnotherProgramHolds() {
  int ready[2];
  if (pipe(ready) != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    const char answer = open(other->generic, O_RDWR | O_EXCL | O_NONBLOCK) >= 0 ? 'y' : 'n';
    if (write(ready[1], &answer, 1) == 1) alarm(5), pause();
    _exit(0);
  }
  char answer = 'n';
  unsigned char sector[2048];
  const bool holds = read(ready[0], &answer, 1) == 1 && answer == 'y';
  const bool refused = aspi_read10(other, disc.readme_lba, 1, sector) != SS_COMP;
  const int wrong = !holds + !refused + WrongRead(held, disc.readme_lba, true);
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  return wrong;
}

}  // namespace

int main() {
  const struct { const char* what; int (*run)(); } rows[] = {
      {"a READ(10) after a rejected 5-byte command on the held drive reads its sector", ShortCommandOnAHeldDrive},
      {"a request to a drive another program holds fails rather than waits; the other goes on",
       ADriveAnotherProgramHolds},
      {"reads while the drive is taken and released carry their sectors", ReadsWhileTakenAndReleased},
  };
  Machine machine;
  find_machine(&machine);
  check_group("races");
  held = machine.scsi, other = machine.atapi;
  if (!check(held && other && load_disc(&disc), "both disc drives and the disc", "missing")) return check_finish();
  settle(held), settle(other);
  for (const auto& row : rows) {
    const int wrong = row.run();
    check(wrong == 0, row.what, "%d wrong", wrong);
  }
  return check_finish();
}
