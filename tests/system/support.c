#define _GNU_SOURCE
#include "support.h"

#include <fcntl.h>
#include <glob.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static const char* current_group = "";
static int failures;

void check_group(const char* name) { current_group = name; }

int check(int passed, const char* what, const char* why_format, ...) {
  va_list args;
  va_start(args, why_format);
  printf("%s - %s: %s%s", passed ? "ok" : "not ok", current_group, what, passed ? "" : ": ");
  if (!passed) vprintf(why_format, args);
  va_end(args);
  printf("\n");
  fflush(stdout);
  failures += !passed;
  return passed;
}

int check_finish(void) { return failures == 0 ? 0 : 1; }

/* sysfs: sgN/device links to H:C:T:L, whose block/ holds srN. */
void find_machine(Machine* vm) {
  glob_t found;
  memset(vm, 0, sizeof *vm);
  for (int n = 0; n < 64 && vm->count < MAX_DRIVES; ++n) {
    Drive* drive = &vm->drives[vm->count];
    char path[96], link[256];
    snprintf(path, sizeof path, "/sys/class/scsi_generic/sg%d/device", n);
    ssize_t length = readlink(path, link, sizeof link - 1);
    if (length <= 0) continue;
    link[length] = 0;
    sscanf(strrchr(link, '/') + 1, "%d:%d:%d:%d", &drive->host, &drive->channel, &drive->target, &drive->lun);
    snprintf(drive->generic, sizeof drive->generic, "/dev/sg%d", n);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/sg%d/device/block/*", n);
    if (glob(path, 0, NULL, &found) == 0)
      snprintf(drive->block, sizeof drive->block, "/dev/%.20s", strrchr(found.gl_pathv[0], '/') + 1);
    globfree(&found);
    snprintf(path, sizeof path, "/sys/class/scsi_host/host%d/proc_name", drive->host);
    FILE* file = fopen(path, "r");
    const int named = file && fscanf(file, "%63s", drive->host_driver) == 1;
    if (file) fclose(file);
    if (!named) continue;
    if (strcmp(drive->host_driver, "virtio_scsi") == 0 && drive->target == 0) vm->scsi = drive;
    if (strcmp(drive->host_driver, "virtio_scsi") == 0 && drive->target == 1) vm->empty = drive;
    if (strcmp(drive->host_driver, "ata_piix") == 0 && drive->target == 0) vm->atapi = drive;
    ++vm->count;
  }
}

int load_disc(Disc* disc) {
  FILE* file = fopen("/opt/kavo/disc.env", "r");
  int read = file ? fscanf(file, "DISC_SECTORS=%u README_LBA=%u README_SIZE=%u DATA_LBA=%u DATA_SIZE=%u",
                           &disc->sectors, &disc->readme_lba, &disc->readme_size, &disc->data_lba, &disc->data_size)
                  : 0;
  if (file) fclose(file);
  return read == 5;
}

int disc_sectors(unsigned lba, unsigned count, unsigned char* out) {
  int fd = open("/opt/kavo/disc.iso", O_RDONLY);
  ssize_t got = fd < 0 ? -1 : pread(fd, out, (size_t)count * 2048, (off_t)lba * 2048);
  if (fd >= 0) close(fd);
  return got == (ssize_t)count * 2048;
}

void srb_init(SRB_ExecSCSICmd* srb, const Drive* drive, unsigned char flags, unsigned char* buffer,
              unsigned length, const unsigned char* cdb, int cdb_length) {
  const SRB_ExecSCSICmd request = {.SRB_Cmd = SC_EXEC_SCSI_CMD, .SRB_HaId = drive->host, .SRB_Flags = flags,
                                   .SRB_Target = drive->target, .SRB_Lun = drive->lun, .SRB_BufLen = length,
                                   .SRB_BufPointer = buffer, .SRB_SenseLen = 14, .SRB_CDBLen = cdb_length};
  *srb = request;
  memcpy(srb->CDBByte, cdb, (size_t)cdb_length);
}

void cdb_read10(unsigned char* cdb, unsigned lba, unsigned count) {
  const unsigned char read10[10] = {0x28, 0, lba >> 24, lba >> 16, lba >> 8, lba, 0, count >> 8, count, 0};
  memcpy(cdb, read10, sizeof read10);
}

void settle(const Drive* drive) {
  static const unsigned char test_unit_ready[6] = {0};
  SRB_ExecSCSICmd srb;
  for (int attempt = 0; attempt < 5; ++attempt) {
    srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
    SendASPI32Command(&srb);
    if (srb.SRB_Status != SS_ERR || (srb.SenseArea[2] & 0x0F) != 6) return;
  }
}

unsigned char aspi_read10(const Drive* drive, unsigned lba, unsigned count, unsigned char* out) {
  unsigned char cdb[10];
  SRB_ExecSCSICmd srb;
  cdb_read10(cdb, lba, count);
  srb_init(&srb, drive, SRB_DIR_IN, out, count * 2048, cdb, 10);
  SendASPI32Command(&srb);
  return srb.SRB_Status;
}
