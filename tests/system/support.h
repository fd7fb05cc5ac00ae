/* What the system scenarios share: one "ok"/"not ok" line per check, the
 * VM's drives as sysfs lists them, the test disc, and ASPI requests. */
#ifndef KAVO_SYSTEM_SUPPORT_H
#define KAVO_SYSTEM_SUPPORT_H

#include "aspi/srb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Prints "ok - group: what" or "not ok - group: what: why"; returns passed. */
void check_group(const char* name);
int check(int passed, const char* what, const char* why_format, ...) __attribute__((format(printf, 3, 4)));
int check_finish(void); /* the exit status: 0 when every check passed */

typedef struct Drive {
  int host, channel, target, lun;
  char generic[32], block[32], host_driver[64]; /* /dev/sgN, /dev/srN or "", the host's proc_name */
} Drive;
enum { MAX_DRIVES = 16 };
/* The CD drives with the disc and without on virtio_scsi, the DVD drive on
 * ata_piix; each null when missing. */
typedef struct Machine {
  Drive drives[MAX_DRIVES];
  int count;
  const Drive *scsi, *empty, *atapi;
} Machine;
void find_machine(Machine* machine);

/* The test disc: /opt/kavo/disc.env and the sectors of disc.iso; 1 on success. */
typedef struct Disc { unsigned sectors, readme_lba, readme_size, data_lba, data_size; } Disc;
int load_disc(Disc* disc);
int disc_sectors(unsigned lba, unsigned count, unsigned char* out);

/* Without IDE adapters the ASPI adapter number is the Linux host number. */
void srb_init(SRB_ExecSCSICmd* srb, const Drive* drive, unsigned char flags, unsigned char* buffer,
              unsigned length, const unsigned char* cdb, int cdb_length);
void cdb_read10(unsigned char* cdb, unsigned lba, unsigned count);
void settle(const Drive* drive); /* TEST UNIT READY until no UNIT ATTENTION */
/* READ(10) of count sectors into out; returns SRB_Status. */
unsigned char aspi_read10(const Drive* drive, unsigned lba, unsigned count, unsigned char* out);

#ifdef __cplusplus
}
#endif

#endif
