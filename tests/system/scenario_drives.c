/* The VM's real drives through the library, as two tables: requests whose
 * outcome the kernel and the drive decide, then exclusive mode on drives
 * whose disc is really mounted. Reads, TOC, sense texts and INQUIRY
 * versions are aspitool's rows (scenario-aspitool). */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

static Disc disc;
enum { SCSI, EMPTY, ATAPI };             /* the drive a row addresses */
enum { ANY, DISC, UNTOUCHED, INQUIRED }; /* the check on the data */
typedef struct {
  const char* what;
  int drive;
  unsigned char cdb[16], cdb_length, flags;
  unsigned length;
  unsigned char status, target_status, flags_after, sense_key;
  int data;
} Request;

#define INQUIRY {0x12, 0, 0, 0, 36}, 6
/* Behind libata an ATAPI drive given no buffer for the data it sends waits
 * for the descriptor's timeout (hours): requests without a data phase for
 * data go to the SCSI drive. Reads are at the data file's start. */
static const Request requests[] = {
    {"INQUIRY without direction is made data-in", SCSI, INQUIRY, 0, 36, SS_COMP, 0, SRB_DIR_IN, 0, INQUIRED},
    {"INQUIRY asking for data out gets both bits, no data", SCSI, INQUIRY, SRB_DIR_OUT, 36, SS_COMP, 0,
     SRB_DIR_IN | SRB_DIR_OUT, 0, UNTOUCHED},
    {"READ(10) without direction bits transfers nothing", SCSI, {0x28}, 10, 0, 2048, SS_COMP, 0, 0, 0, UNTOUCHED},
    {"TEST UNIT READY with the disc in", ATAPI, {0}, 6, 0, 0, SS_COMP, 0, 0, 0, ANY},
    {"TEST UNIT READY without a medium: NOT READY", EMPTY, {0}, 6, 0, 0, SS_ERR, 2, 0, 2, ANY},
    /* Older drivers would cut its group to 12 bytes. */
    {"READ(16) reaches the drive whole", SCSI, {0x88}, 16, SRB_DIR_IN, 4096, SS_COMP, 0, SRB_DIR_IN, 0, DISC},
    {"SEND KEY is made data-out and completes whatever the drive says", SCSI, {0xA3}, 12, 0, 0, SS_COMP, 0,
     SRB_DIR_OUT, 5, ANY},
};

static void check_request(const Drive* drive, const Request* row) {
  unsigned char buffer[4096], expected[4096];
  const unsigned lba = disc.data_lba, count = row->length / 2048;
  const unsigned char read16[8] = {lba >> 24, lba >> 16, lba >> 8, lba, 0, 0, count >> 8, count};
  SRB_ExecSCSICmd srb;
  char what[128];
  memset(buffer, 0x5A, sizeof buffer);
  srb_init(&srb, drive, row->flags, buffer, row->length, row->cdb, row->cdb_length);
  if (row->cdb[0] == 0x28) cdb_read10(srb.CDBByte, lba, count);
  if (row->cdb[0] == 0x88) memcpy(srb.CDBByte + 6, read16, sizeof read16);
  unsigned result = SendASPI32Command(&srb);
  int data = row->data == DISC ? disc_sectors(lba, count, expected) && !memcmp(buffer, expected, row->length)
             : row->data == UNTOUCHED ? buffer[0] == 0x5A && buffer[row->length - 1] == 0x5A
             : row->data == INQUIRED ? !memcmp(buffer + 8, "QEMU", 4) && (buffer[0] & 0x1F) == 5 : 1;
  snprintf(what, sizeof what, "%s (%s)", row->what, drive->generic);
  check(result == SS_PENDING && srb.SRB_Status == row->status && srb.SRB_TargStat == row->target_status &&
            srb.SRB_HaStat == 0 && srb.SRB_Flags == row->flags_after && (srb.SenseArea[2] & 0x0F) == row->sense_key &&
            data,
        what, "result %#x, status %#x, target %#x, flags %#x, sense key %x, data %s", result, srb.SRB_Status,
        srb.SRB_TargStat, srb.SRB_Flags, srb.SenseArea[2] & 0x0F, data ? "right" : "wrong");
}

enum Action { TYPE, MOUNT, UNMOUNT, TAKE, RELEASE, OPEN_EXCLUSIVE, OPEN_PLAIN, THREADS };
typedef struct {
  const char* what;
  enum Action action;
  int expected; /* a result, an errno, or a count of wrong reads */
} Step;

/* The generic driver turns away even plain opens while an exclusive holder
 * has the node. A held drive has one descriptor for all threads, where the
 * driver hands a reply to whichever thread reads first: only the device's
 * lock keeps each thread's write and read together. */
static const Step steps[] = {
    {"GET DEVICE TYPE says CD/DVD drive", TYPE, 5},
    {"4 threads x 20 reads get their own sectors", THREADS, 0},
    {"the disc is mounted", MOUNT, 0},
    {"taking the drive succeeds", TAKE, 0},
    {"taking it unmounted the disc", UNMOUNT, EINVAL},
    {"an exclusive open is refused", OPEN_EXCLUSIVE, EBUSY},
    {"a plain open is refused", OPEN_PLAIN, EBUSY},
    {"4 threads x 20 reads of the held drive get their own sectors", THREADS, 0},
    {"a nested hold is taken", TAKE, 0},
    {"the nested hold is released", RELEASE, 0},
    {"the drive stays held until the last release", OPEN_EXCLUSIVE, EBUSY},
    {"the last hold is released", RELEASE, 0},
    {"the generic node opens exclusively again", OPEN_EXCLUSIVE, 0},
    {"releasing a drive not held fails", RELEASE, -1},
};

static const Drive* reading; /* the threads' drive, set before they start */

static void* read_sectors(void* wrong) {
  unsigned char got[8 * 2048], expected[8 * 2048];
  const unsigned first = disc.data_lba + (unsigned)*(int*)wrong * 200;
  *(int*)wrong = 0;
  for (unsigned lba = first; lba < first + 20 * 8; lba += 8)
    *(int*)wrong += aspi_read10(reading, lba, 8, got) != SS_COMP || !disc_sectors(lba, 8, expected) ||
                    memcmp(got, expected, sizeof got) != 0;
  return NULL;
}

static int read_in_threads(const Drive* drive) {
  pthread_t threads[4];
  int wrong[4] = {0, 1, 2, 3}, total = 0; /* in: the thread's index; out: its wrong reads */
  reading = drive;
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, read_sectors, &wrong[i]);
  for (int i = 0; i < 4; ++i) total += pthread_join(threads[i], NULL) == 0 ? wrong[i] : 20;
  return total;
}

static int open_error(const char* path, int flags) {
  int fd = open(path, O_NONBLOCK | flags);
  return fd < 0 ? errno : close(fd);
}

static int run(const Drive* drive, enum Action action, const char* mount_point) {
  SRB_GDEVBlock type = {.SRB_Cmd = SC_GET_DEV_TYPE, .SRB_HaId = drive->host, .SRB_Target = drive->target};
  switch (action) {
    case TYPE: return SendASPI32Command(&type) == SS_COMP ? type.SRB_DeviceType : -1;
    case MOUNT: mkdir(mount_point, 0755); return mount(drive->block, mount_point, "iso9660", MS_RDONLY, NULL);
    case UNMOUNT: return umount(mount_point) == 0 ? 0 : errno;
    case TAKE: return ASPI_setExclusiveMode(drive->host, drive->target);
    case RELEASE: return ASPI_unsetExclusiveMode(drive->host, drive->target);
    case OPEN_EXCLUSIVE: return open_error(drive->generic, O_RDWR | O_EXCL);
    case OPEN_PLAIN: return open_error(drive->generic, O_RDWR);
    case THREADS: return read_in_threads(drive);
  }
  return -2;
}

int main(void) {
  const char* mount_points[] = {"/mnt/scsi", "", "/mnt/atapi"};
  Machine vm;
  char what[160];
  find_machine(&vm);
  const Drive* drives[] = {vm.scsi, vm.empty, vm.atapi};
  check_group("requests");
  if (!check(vm.scsi && vm.empty && vm.atapi && vm.scsi->block[0] && vm.atapi->block[0] && load_disc(&disc),
             "the machine has its drives, their block nodes and the disc", "%d drives", vm.count))
    return check_finish();
  for (int which = SCSI; which <= ATAPI; ++which) settle(drives[which]);
  for (unsigned i = 0; i < sizeof requests / sizeof requests[0]; ++i)
    check_request(drives[requests[i].drive], &requests[i]);
  check_group("each drive");
  check(ASPI_setExclusiveMode(vm.scsi->host, 5) == -1, "taking an address without a drive fails", "it succeeded");
  for (int which = SCSI; which <= ATAPI; which += ATAPI - SCSI)
    for (unsigned i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
      int got = run(drives[which], steps[i].action, mount_points[which]);
      snprintf(what, sizeof what, "%s (%s)", steps[i].what, drives[which]->generic);
      check(got == steps[i].expected, what, "got %d, expected %d", got, steps[i].expected);
    }
  return check_finish();
}
