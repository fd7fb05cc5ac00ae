/* SCSI commands through SendASPI32Command on a real kernel: INQUIRY with
 * its direction and version fixes, a drive without a medium, capacity and
 * data read back from the test disc on the SCSI and the ATAPI drive,
 * commands without a data phase, and refused requests. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "support.h"

static const unsigned char test_unit_ready[6] = {0x00, 0, 0, 0, 0, 0};

static void check_inquiry(const Drive* drive, int emulated_host) {
  static const unsigned char inquiry_cdb[6] = {0x12, 0, 0, 0, 36, 0};
  unsigned char through_aspi[36], reference[36];
  SRB_ExecSCSICmd srb;
  char what[128];
  int reference_status = sgio_in(drive->generic, inquiry_cdb, 6, reference, sizeof reference);

  memset(through_aspi, 0xEE, sizeof through_aspi);
  srb_init(&srb, drive, 0, through_aspi, sizeof through_aspi, inquiry_cdb, 6);
  SendASPI32Command(&srb);
  snprintf(what, sizeof what, "INQUIRY without direction on %s becomes data-in and succeeds", drive->generic);
  check(srb.SRB_Flags == SRB_DIR_IN && srb.SRB_Status == SS_COMP && srb.SRB_TargStat == 0 && srb.SRB_HaStat == 0,
        what, "flags %#x, status %#x, target status %#x", srb.SRB_Flags, srb.SRB_Status, srb.SRB_TargStat);
  snprintf(what, sizeof what, "INQUIRY data of %s names \"%s\" \"%s\"", drive->generic, drive->vendor, drive->model);
  check(memcmp(through_aspi + 8, "QEMU", 4) == 0 && strncmp((char*)through_aspi + 16, drive->model,
                                                               strlen(drive->model)) == 0 &&
            (through_aspi[0] & 0x1F) == drive->type,
        what, "got \"%.8s\" \"%.16s\" type %d", (char*)through_aspi + 8, (char*)through_aspi + 16,
        through_aspi[0] & 0x1F);

  if (!check(reference_status == 0 && (reference[2] & 7) != 0, "the drive itself reports an ANSI version",
             "SG_IO status %d, version byte %#x", reference_status, reference[2]))
    return;
  if (emulated_host) {
    snprintf(what, sizeof what, "ANSI version cleared behind the emulated host (%s)", drive->host_driver);
    check((through_aspi[2] & 7) == 0 && (through_aspi[2] & 0xF8) == (reference[2] & 0xF8), what,
          "drive says %#x, ASPI gives %#x", reference[2], through_aspi[2]);
  } else {
    snprintf(what, sizeof what, "ANSI version kept on the real host (%s)", drive->host_driver);
    check(through_aspi[2] == reference[2], what, "drive says %#x, ASPI gives %#x", reference[2], through_aspi[2]);
  }
  reference[2] = through_aspi[2];
  snprintf(what, sizeof what, "the rest of the INQUIRY data of %s is the drive's", drive->generic);
  check(memcmp(through_aspi, reference, sizeof reference) == 0, what, "data differs");

  /* Behind libata an ATAPI drive given no buffer for the data it sends
   * waits for the descriptor's command timeout (hours): only the SCSI
   * drive is asked for a request without a data phase. */
  if (emulated_host) return;
  memset(through_aspi, 0xEE, sizeof through_aspi);
  srb_init(&srb, drive, SRB_DIR_OUT, through_aspi, sizeof through_aspi, inquiry_cdb, 6);
  SendASPI32Command(&srb);
  snprintf(what, sizeof what, "INQUIRY asking for data out on %s gets both direction bits and no data",
           drive->generic);
  check(srb.SRB_Flags == (SRB_DIR_IN | SRB_DIR_OUT) && through_aspi[0] == 0xEE && through_aspi[35] == 0xEE, what,
        "flags %#x, first byte %#x", srb.SRB_Flags, through_aspi[0]);
}

static void check_no_medium(const Drive* drive) {
  SRB_ExecSCSICmd srb;
  int attempt;
  for (attempt = 0; attempt < 3; ++attempt) {  /* past a UNIT ATTENTION, if any */
    srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
    SendASPI32Command(&srb);
    if ((srb.SenseArea[2] & 0x0F) != 6) break;
  }
  check(srb.SRB_Status == SS_ERR && srb.SRB_TargStat == 2 && srb.SRB_HaStat == 0,
        "TEST UNIT READY without a medium: error, target status NOT READY", "status %#x, target status %#x",
        srb.SRB_Status, srb.SRB_TargStat);
  check((srb.SenseArea[0] & 0x7F) == 0x70 && (srb.SenseArea[2] & 0x0F) == 2 && srb.SenseArea[12] == 0x3A,
        "sense data says MEDIUM NOT PRESENT", "sense %02x key %x asc %02x", srb.SenseArea[0],
        srb.SenseArea[2] & 0x0F, srb.SenseArea[12]);
}

static void check_capacity(const Drive* drive, const Disc* disc) {
  static const unsigned char read_capacity[10] = {0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  unsigned char data[8];
  SRB_ExecSCSICmd srb;
  unsigned last, block;
  char what[128];
  memset(data, 0, sizeof data);
  srb_init(&srb, drive, SRB_DIR_IN, data, sizeof data, read_capacity, 10);
  SendASPI32Command(&srb);
  last = (unsigned)data[0] << 24 | (unsigned)data[1] << 16 | (unsigned)data[2] << 8 | data[3];
  block = (unsigned)data[4] << 24 | (unsigned)data[5] << 16 | (unsigned)data[6] << 8 | data[7];
  snprintf(what, sizeof what, "READ CAPACITY on %s: last block %u of 2048 bytes", drive->generic, disc->sectors - 1);
  check(srb.SRB_Status == SS_COMP && last == disc->sectors - 1 && block == 2048, what,
        "status %#x, last %u, block %u", srb.SRB_Status, last, block);
}

static void check_read(const Drive* drive, const char* where, unsigned lba, unsigned count) {
  unsigned char* got = malloc(count * 2048);
  unsigned char* expected = malloc(count * 2048);
  unsigned char status;
  char what[160];
  memset(got, 0x5A, count * 2048);
  status = aspi_read10(drive, lba, count, got);
  snprintf(what, sizeof what, "READ(10) of %u sector%s at %u (%s) on %s returns the disc's bytes", count,
           count == 1 ? "" : "s", lba, where, drive->generic);
  if (!disc_sectors(lba, count, expected)) {
    check(0, what, "cannot read the disc image");
  } else {
    unsigned first = 0;
    while (first < count * 2048 && got[first] == expected[first]) ++first;
    check(status == SS_COMP && first == count * 2048, what, "status %#x, first difference at byte %u", status,
          first);
  }
  free(got);
  free(expected);
}

static void check_reads(const Drive* drive, const Disc* disc) {
  unsigned char past[2048];
  SRB_ExecSCSICmd srb;
  unsigned char cdb[10];
  char what[128];
  settle(drive);
  check_capacity(drive, disc);
  check_read(drive, "primary volume descriptor", 16, 1);
  check_read(drive, "64 KiB of random data", disc->data_lba + 5, 32);
  check_read(drive, "the text file", disc->readme_lba, 1);
  check_read(drive, "last sector", disc->sectors - 1, 1);

  cdb_read10(cdb, disc->sectors + 100, 1);
  srb_init(&srb, drive, SRB_DIR_IN, past, sizeof past, cdb, 10);
  SendASPI32Command(&srb);
  snprintf(what, sizeof what, "READ(10) past the end of the disc on %s: ILLEGAL REQUEST", drive->generic);
  check(srb.SRB_Status == SS_ERR && srb.SRB_TargStat == 5 && (srb.SenseArea[2] & 0x0F) == 5, what,
        "status %#x, target status %#x, sense key %#x", srb.SRB_Status, srb.SRB_TargStat, srb.SenseArea[2] & 0x0F);
}

/* The generic path must hand 16-byte CDBs to the driver whole: READ(16)
 * is of a group the driver would cut to 12 bytes. */
static void check_read16(const Drive* drive, const Disc* disc) {
  unsigned char cdb[16] = {0x88};
  unsigned char got[4096], expected[4096];
  SRB_ExecSCSICmd srb;
  unsigned lba = disc->data_lba + 1;
  cdb[6] = (unsigned char)(lba >> 24);
  cdb[7] = (unsigned char)(lba >> 16);
  cdb[8] = (unsigned char)(lba >> 8);
  cdb[9] = (unsigned char)lba;
  cdb[13] = 2;
  memset(got, 0, sizeof got);
  srb_init(&srb, drive, SRB_DIR_IN, got, sizeof got, cdb, 16);
  SendASPI32Command(&srb);
  check(srb.SRB_Status == SS_COMP && disc_sectors(lba, 2, expected) && memcmp(got, expected, sizeof got) == 0,
        "READ(16) with a 16-byte CDB returns the disc's bytes", "status %#x, target status %#x", srb.SRB_Status,
        srb.SRB_TargStat);
}

static void check_without_data(const Drive* drive, const Disc* disc) {
  unsigned char buffer[2048];
  unsigned char cdb[10];
  SRB_ExecSCSICmd srb;
  char what[128];
  settle(drive);
  srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
  SendASPI32Command(&srb);
  snprintf(what, sizeof what, "TEST UNIT READY on %s with the disc in: good", drive->generic);
  check(srb.SRB_Status == SS_COMP && srb.SRB_TargStat == 0 && srb.SRB_HaStat == 0, what,
        "status %#x, target status %#x", srb.SRB_Status, srb.SRB_TargStat);

  if (strcmp(drive->host_driver, "ata_piix") == 0) return;  /* see check_inquiry */
  memset(buffer, 0x33, sizeof buffer);
  cdb_read10(cdb, disc->data_lba, 1);
  srb_init(&srb, drive, 0, buffer, sizeof buffer, cdb, 10);
  SendASPI32Command(&srb);
  snprintf(what, sizeof what, "READ(10) without direction bits on %s transfers nothing", drive->generic);
  check(srb.SRB_Status != SS_PENDING && srb.SRB_Status != SS_NO_DEVICE && buffer[0] == 0x33 && buffer[2047] == 0x33,
        what,
        "status %#x, buffer starts %#x", srb.SRB_Status, buffer[0]);
}

static void check_refused(const Drive* drive) {
  SRB_ExecSCSICmd srb;
  unsigned status;
  srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
  srb.SRB_CDBLen = 0;
  status = SendASPI32Command(&srb);
  check(status == SS_PENDING && srb.SRB_Status == SS_INVALID_SRB, "a request without a CDB is invalid",
        "result %#x, status %#x", status, srb.SRB_Status);

  srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
  srb.SRB_Target = 6;
  SendASPI32Command(&srb);
  check(srb.SRB_Status == SS_NO_DEVICE, "a request to an empty target finds no device", "status %#x",
        srb.SRB_Status);

  srb_init(&srb, drive, 0, NULL, 0, test_unit_ready, 6);
  srb.SRB_Cmd = 3;
  srb.SRB_Status = 0x77;
  status = SendASPI32Command(&srb);
  check(status == SS_INVALID_SRB && srb.SRB_Status == 0x77, "an abort request is refused untouched",
        "result %#x, status %#x", status, srb.SRB_Status);
}

/* A caller asking for more than 16 bytes of sense gets at most 16. */
static void check_sense_limit(const Drive* empty) {
  struct {
    SRB_ExecSCSICmd srb;
    unsigned char beyond[16];
  } block;
  srb_init(&block.srb, empty, 0, NULL, 0, test_unit_ready, 6);
  block.srb.SRB_SenseLen = 32;
  memset(block.beyond, 0xC3, sizeof block.beyond);
  SendASPI32Command(&block.srb);
  check(block.srb.SRB_Status == SS_ERR && (block.srb.SenseArea[2] & 0x0F) == 2 && block.beyond[0] == 0xC3 &&
            block.beyond[15] == 0xC3,
        "32 bytes of sense asked: 16 written", "status %#x, byte after the sense area %#x", block.srb.SRB_Status,
        block.beyond[0]);
}

int main(void) {
  Machine vm;
  find_machine(&vm);
  Disc disc;

  check_group("commands");
  if (!check(vm.scsi && vm.empty && vm.atapi && load_disc(&disc), "the machine has its drives and the disc",
             "%d drives", vm.count))
    return check_finish();

  check_group("inquiry");
  check_inquiry(vm.scsi, 0);
  check_inquiry(vm.atapi, 1);

  check_group("no-medium");
  check_no_medium(vm.empty);
  check_sense_limit(vm.empty);

  check_group("read");
  check_reads(vm.scsi, &disc);
  check_reads(vm.atapi, &disc);
  check_read16(vm.scsi, &disc);

  check_group("no-data");
  check_without_data(vm.scsi, &disc);
  check_without_data(vm.atapi, &disc);

  check_group("refused");
  check_refused(vm.scsi);
  return check_finish();
}
