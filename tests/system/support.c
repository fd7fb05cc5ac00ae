#define _GNU_SOURCE
#include "support.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

static const char* current_group = "";
static int failures;

void check_group(const char* name) { current_group = name; }

int check(int passed, const char* what, const char* why_format, ...) {
  if (passed) {
    printf("ok - %s: %s\n", current_group, what);
  } else {
    va_list args;
    printf("not ok - %s: %s: ", current_group, what);
    va_start(args, why_format);
    vprintf(why_format, args);
    va_end(args);
    printf("\n");
    ++failures;
  }
  fflush(stdout);
  return passed;
}

int check_finish(void) { return failures == 0 ? 0 : 1; }

/* Reads the first line of a small sysfs file, without the newline and with
 * trailing blanks removed. */
static void read_line(const char* path, char* out, unsigned size) {
  FILE* file = fopen(path, "r");
  out[0] = 0;
  if (!file) return;
  if (fgets(out, (int)size, file)) {
    size_t length = strlen(out);
    while (length > 0 && (out[length - 1] == '\n' || out[length - 1] == ' ')) out[--length] = 0;
  }
  fclose(file);
}

void host_driver_name(int host, char* name, unsigned size) {
  char path[96];
  snprintf(path, sizeof path, "/sys/class/scsi_host/host%d/proc_name", host);
  read_line(path, name, size);
}

static int by_generic_number(const void* a, const void* b) {
  const Drive* left = (const Drive*)a;
  const Drive* right = (const Drive*)b;
  return atoi(left->generic + 7) - atoi(right->generic + 7);
}

int list_drives(Drive* drives, int capacity) {
  DIR* dir = opendir("/sys/class/scsi_generic");
  struct dirent* entry;
  int count = 0;
  if (!dir) return 0;
  while ((entry = readdir(dir)) != NULL && count < capacity) {
    char path[320], link[256], text[64];
    ssize_t length;
    const char* address;
    Drive* drive = &drives[count];
    DIR* blocks;
    if (strncmp(entry->d_name, "sg", 2) != 0) continue;
    memset(drive, 0, sizeof *drive);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/%.200s/device", entry->d_name);
    length = readlink(path, link, sizeof link - 1);
    if (length <= 0) continue;
    link[length] = 0;
    address = strrchr(link, '/') ? strrchr(link, '/') + 1 : link;
    if (sscanf(address, "%d:%d:%d:%d", &drive->host, &drive->channel, &drive->target, &drive->lun) != 4)
      continue;
    snprintf(drive->generic, sizeof drive->generic, "/dev/%.20s", entry->d_name);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/%.200s/device/type", entry->d_name);
    read_line(path, text, sizeof text);
    drive->type = atoi(text);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/%.200s/device/vendor", entry->d_name);
    read_line(path, drive->vendor, sizeof drive->vendor);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/%.200s/device/model", entry->d_name);
    read_line(path, drive->model, sizeof drive->model);
    snprintf(path, sizeof path, "/sys/class/scsi_generic/%.200s/device/block", entry->d_name);
    blocks = opendir(path);
    if (blocks) {
      struct dirent* block;
      while ((block = readdir(blocks)) != NULL)
        if (block->d_name[0] != '.') snprintf(drive->block, sizeof drive->block, "/dev/%.20s", block->d_name);
      closedir(blocks);
    }
    host_driver_name(drive->host, drive->host_driver, sizeof drive->host_driver);
    ++count;
  }
  closedir(dir);
  qsort(drives, (size_t)count, sizeof *drives, by_generic_number);
  return count;
}

const Drive* find_drive(const Drive* drives, int count, const char* host_driver, int target) {
  int first_host = -1, i;
  for (i = 0; i < count; ++i)
    if (strcmp(drives[i].host_driver, host_driver) == 0 && (first_host < 0 || drives[i].host < first_host))
      first_host = drives[i].host;
  for (i = 0; i < count; ++i)
    if (drives[i].host == first_host && drives[i].target == target && drives[i].lun == 0) return &drives[i];
  return NULL;
}

void find_machine(Machine* machine) {
  machine->count = list_drives(machine->drives, MAX_DRIVES);
  machine->scsi = find_drive(machine->drives, machine->count, "virtio_scsi", 0);
  machine->empty = find_drive(machine->drives, machine->count, "virtio_scsi", 1);
  machine->atapi = find_drive(machine->drives, machine->count, "ata_piix", 0);
}

static unsigned env_value(const char* text, const char* name) {
  const char* at = strstr(text, name);
  return at ? (unsigned)strtoul(at + strlen(name) + 1, NULL, 10) : 0;
}

int load_disc(Disc* disc) {
  char text[512];
  FILE* file = fopen("/opt/kavo/disc.env", "r");
  size_t length;
  if (!file) return 0;
  length = fread(text, 1, sizeof text - 1, file);
  fclose(file);
  text[length] = 0;
  disc->sectors = env_value(text, "DISC_SECTORS");
  disc->readme_lba = env_value(text, "README_LBA");
  disc->readme_size = env_value(text, "README_SIZE");
  disc->data_lba = env_value(text, "DATA_LBA");
  disc->data_size = env_value(text, "DATA_SIZE");
  return disc->sectors > 0 && disc->data_lba > 0;
}

int disc_sectors(unsigned lba, unsigned count, unsigned char* out) {
  int fd = open("/opt/kavo/disc.iso", O_RDONLY);
  ssize_t got;
  if (fd < 0) return 0;
  got = pread(fd, out, (size_t)count * 2048, (off_t)lba * 2048);
  close(fd);
  return got == (ssize_t)count * 2048;
}

int sgio_in(const char* path, const unsigned char* cdb, int cdb_length, unsigned char* data, unsigned length) {
  sg_io_hdr_t io;
  unsigned char sense[32];
  int fd = open(path, O_RDWR | O_NONBLOCK);
  int result;
  if (fd < 0) return -1;
  memset(&io, 0, sizeof io);
  io.interface_id = 'S';
  io.dxfer_direction = length ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
  io.cmd_len = (unsigned char)cdb_length;
  io.cmdp = (unsigned char*)cdb;
  io.dxferp = data;
  io.dxfer_len = length;
  io.sbp = sense;
  io.mx_sb_len = sizeof sense;
  io.timeout = 20000;
  result = ioctl(fd, SG_IO, &io);
  close(fd);
  return result < 0 ? -1 : io.status;
}

void srb_init(SRB_ExecSCSICmd* srb, const Drive* drive, unsigned char flags, unsigned char* buffer,
              unsigned length, const unsigned char* cdb, int cdb_length) {
  memset(srb, 0, sizeof *srb);
  srb->SRB_Cmd = SC_EXEC_SCSI_CMD;
  /* Without IDE adapters the ASPI adapter number is the Linux host number. */
  srb->SRB_HaId = (unsigned char)drive->host;
  srb->SRB_Flags = flags;
  srb->SRB_Target = (unsigned char)drive->target;
  srb->SRB_Lun = (unsigned char)drive->lun;
  srb->SRB_BufLen = length;
  srb->SRB_BufPointer = buffer;
  srb->SRB_SenseLen = 14;
  srb->SRB_CDBLen = (unsigned char)cdb_length;
  memcpy(srb->CDBByte, cdb, (size_t)cdb_length);
}

void cdb_read10(unsigned char* cdb, unsigned lba, unsigned count) {
  memset(cdb, 0, 10);
  cdb[0] = 0x28;
  cdb[2] = (unsigned char)(lba >> 24);
  cdb[3] = (unsigned char)(lba >> 16);
  cdb[4] = (unsigned char)(lba >> 8);
  cdb[5] = (unsigned char)lba;
  cdb[7] = (unsigned char)(count >> 8);
  cdb[8] = (unsigned char)count;
}

void settle(const Drive* drive) {
  static const unsigned char test_unit_ready[6] = {0};
  int attempt;
  for (attempt = 0; attempt < 5; ++attempt) {
    SRB_ExecSCSICmd srb;
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
