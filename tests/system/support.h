/* What the system scenarios share: check reporting, the kernel's own view
 * of the drives (sysfs), the test disc, direct SG_IO as a reference path,
 * and small builders for ASPI requests. The library is used only through
 * its public header. */
#ifndef KAVO_SYSTEM_SUPPORT_H
#define KAVO_SYSTEM_SUPPORT_H

#include "aspi/srb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- checks: one line each, "ok - group: what" or "not ok - group: what: why" */
void check_group(const char* name);
int check(int passed, const char* what, const char* why_format, ...)
    __attribute__((format(printf, 3, 4)));
/* The exit status of a scenario program: 0 when every check passed. */
int check_finish(void);

/* ---- the drives as the kernel lists them in sysfs */
typedef struct Drive {
  int host, channel, target, lun;
  int type;               /* peripheral device type */
  char generic[32];       /* /dev/sgN */
  char block[32];         /* /dev/srN, or empty */
  char vendor[9];
  char model[17];
  char host_driver[64];   /* proc_name of the Linux SCSI host */
} Drive;

enum { MAX_DRIVES = 16 };
/* Fills drives[] in generic-node order; returns how many. */
int list_drives(Drive* drives, int capacity);
/* The drive on the first host whose driver is host_driver, at target; null
 * when there is none. */
const Drive* find_drive(const Drive* drives, int count, const char* host_driver, int target);
/* The VM's drives: the disc drive and the empty drive on virtio_scsi, the
 * DVD drive on ata_piix; each null when missing. */
typedef struct Machine {
  Drive drives[MAX_DRIVES];
  int count;
  const Drive *scsi, *empty, *atapi;
} Machine;
void find_machine(Machine* machine);
/* The proc_name of Linux SCSI host n, or "" when it has none. */
void host_driver_name(int host, char* name, unsigned size);

/* ---- the test disc (read from /opt/kavo/disc.env and disc.iso) */
typedef struct Disc {
  unsigned sectors;
  unsigned readme_lba, readme_size;
  unsigned data_lba, data_size;
} Disc;
int load_disc(Disc* disc);
/* Copies count sectors at lba from the disc image; 1 on success. */
int disc_sectors(unsigned lba, unsigned count, unsigned char* out);

/* ---- direct SG_IO on a generic node, as the reference */
/* Runs cdb on path with data in (length bytes into data); returns the SCSI
 * status, or -1 when the node cannot be used. */
int sgio_in(const char* path, const unsigned char* cdb, int cdb_length, unsigned char* data, unsigned length);

/* ---- ASPI request builders */
void srb_init(SRB_ExecSCSICmd* srb, const Drive* drive, unsigned char flags, unsigned char* buffer,
              unsigned length, const unsigned char* cdb, int cdb_length);
void cdb_read10(unsigned char* cdb, unsigned lba, unsigned count);
/* Sends a TEST UNIT READY until the drive stops reporting UNIT ATTENTION
 * (a fresh medium or a reset), at most a few times. */
void settle(const Drive* drive);
/* READ(10) of count sectors through ASPI into out; returns SRB_Status. */
unsigned char aspi_read10(const Drive* drive, unsigned lba, unsigned count, unsigned char* out);

#ifdef __cplusplus
}
#endif

#endif
