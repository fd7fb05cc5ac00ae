/* Requests that race holds and other programs: a rejected command leaves
 * nothing behind on a held drive, reads stay right while the drive is taken
 * and released under them, and a drive another program holds answers at
 * once instead of stalling everyone. */
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "support.h"

static Disc disc;
static volatile int stop;
static int wrong_reads;

/* Reads one sector after another until stopped; a read that completes must
 * carry the disc's sectors, whatever the hold is doing meanwhile. */
static void* read_until_stopped(void* drive) {
  unsigned char got[2048], expected[2048];
  for (unsigned n = 0; !stop; ++n) {
    unsigned lba = disc.data_lba + n % 64;
    if (aspi_read10(drive, lba, 1, got) == SS_COMP && (!disc_sectors(lba, 1, expected) || memcmp(got, expected, 2048)))
      __sync_fetch_and_add(&wrong_reads, 1);
  }
  return NULL;
}

static double seconds_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

int main(void) {
  Machine machine;
  unsigned char got[2048], expected[2048], cdb[16] = {0x28};
  SRB_ExecSCSICmd srb;
  check_group("races");
  find_machine(&machine);
  if (!check(machine.scsi && machine.atapi && load_disc(&disc), "both disc drives and the disc", "missing"))
    return check_finish();
  const Drive *held = machine.scsi, *other = machine.atapi;
  settle(held);
  settle(other);

  check(ASPI_setExclusiveMode(held->host, held->target) == 0, "the disc drive is taken", "refused");
  srb_init(&srb, held, 0, NULL, 0, cdb, 5);
  SendASPI32Command(&srb);
  check(aspi_read10(held, disc.readme_lba, 1, got) == SS_COMP && disc_sectors(disc.readme_lba, 1, expected) &&
            memcmp(got, expected, 2048) == 0,
        "a READ(10) after a rejected 5-byte command reads the right sector", "failed or other data");
  ASPI_unsetExclusiveMode(held->host, held->target);

  pthread_t readers[3];
  const Drive* read_drives[3] = {held, held, other};
  for (int i = 0; i < 3; ++i) pthread_create(&readers[i], NULL, read_until_stopped, (void*)read_drives[i]);
  int holds = 0;
  for (int i = 0; i < 300; ++i)
    if (ASPI_setExclusiveMode(held->host, held->target) == 0) holds += ASPI_unsetExclusiveMode(held->host, held->target) == 0;
  stop = 1;
  for (int i = 0; i < 3; ++i) pthread_join(readers[i], NULL);
  check(wrong_reads == 0, "reads while the drive is taken and released carry the right sectors",
        "%d holds, %d wrong reads", holds, wrong_reads);

  int ready[2];
  if (pipe(ready) != 0) return check_finish();
  pid_t child = fork();
  if (child == 0) { /* another program holds the DVD drive; the sg driver waits for O_EXCL without O_NONBLOCK */
    int fd = open(other->generic, O_RDWR | O_EXCL | O_NONBLOCK);
    if (write(ready[1], fd >= 0 ? "y" : "n", 1) != 1) _exit(1);
    alarm(5); /* lets go on its own, so that a library that waits is seen late rather than never */
    pause();
    _exit(0);
  }
  char answer = 'n';
  if (read(ready[0], &answer, 1) != 1 || !check(answer == 'y', "another program holds the DVD drive", "open failed"))
    return check_finish();
  double start = seconds_now();
  unsigned char status = aspi_read10(other, disc.readme_lba, 1, got);
  double waited = seconds_now() - start;
  check(status != SS_COMP && waited < 1.0, "a request to it fails within a second", "status %02X after %.1f s",
        status, waited);
  check(aspi_read10(held, disc.readme_lba, 1, got) == SS_COMP, "requests to the other drive go on", "failed");
  kill(child, SIGTERM);
  waitpid(child, NULL, 0);
  return check_finish();
}
