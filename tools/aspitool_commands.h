/* aspitool's commands, apart from main so that tests can run them against
 * any machine the library sees. They use only the public ASPI interface. */
#ifndef KAVOASPI_TOOLS_ASPITOOL_COMMANDS_H
#define KAVOASPI_TOOLS_ASPITOOL_COMMANDS_H

#include <stdio.h>

#include "aspi/srb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Exit codes. */
#define ASPITOOL_OK 0
#define ASPITOOL_FAILED 1 /* a device or command failed */
#define ASPITOOL_USAGE 2  /* bad arguments */

/* The whole command line: argv[0] is the program, argv[1] the command.
 * Results go to out, messages to err. */
int aspitool_main(int argc, char** argv, FILE* out, FILE* err);

/* Writes why an execute request failed: ASPI status, and the sense key
 * with its additional sense code, or the target status, in words. */
void aspitool_describe_failure(FILE* err, const SRB_ExecSCSICmd* srb);

/* Writes a READ TOC (format 0) answer of size bytes: the track range, then
 * each track's number, kind and start address and the lead-out. 0 when the
 * answer holds no table. */
int aspitool_print_toc(FILE* out, const unsigned char* toc, unsigned int size);

/* "IDE adapter", "real SCSI host", "emulated SCSI host" or "no adapter at
 * this number". */
const char* aspitool_adapter_kind(int adapter);
/* The Linux SCSI host behind an ASPI adapter number; -1 for an IDE adapter. */
int aspitool_linux_host(int adapter);

/* ---- Shared by the command files ---- */

#define ASPITOOL_BLOCK_SIZE 2048u

typedef struct {
  unsigned char adapter, target, lun;
} AspitoolAddress;

/* Parses ADAPTER:TARGET:LUN, or a drive's node /dev/sgN or /dev/srN, and
 * checks that a device is there; says what is wrong on err, and why the
 * library may not see the drive. An ASPITOOL_ exit code. */
int aspitool_take_address(const char* text, AspitoolAddress* address, FILE* err);

/* Runs one command, data moving as flags say (SRB_DIR_IN clears the buffer
 * first); the request has completed on return. Sent again after a UNIT
 * ATTENTION. Returns SRB_Status. */
unsigned char aspitool_execute(const AspitoolAddress* address, const unsigned char* cdb, unsigned char cdbLength,
                               unsigned char* buffer, unsigned int length, unsigned char flags,
                               SRB_ExecSCSICmd* srb);

/* "aspitool: WHAT of A:T:L failed: " and the failure in words. */
int aspitool_report_failure(FILE* err, const char* what, const AspitoolAddress* address,
                            const SRB_ExecSCSICmd* srb);

/* Blocks per transfer: the adapter's largest transfer (SC_HA_INQUIRY), at
 * least one. */
unsigned int aspitool_blocks_per_request(int adapter);

/* Takes blocks read from lba; says itself on err what went wrong. An
 * ASPITOOL_ exit code: any other than ASPITOOL_OK ends the reading. */
typedef int (*AspitoolBlockSink)(void* context, const unsigned char* data, unsigned int blocks,
                                 unsigned long long lba);

/* READ(10) of count blocks from lba, in transfers of the adapter's size,
 * each handed to sink; progress on err under verb ("reading") for reads
 * of 2 MiB and more. */
int aspitool_read_blocks(const AspitoolAddress* address, unsigned long long lba, unsigned long long count,
                         const char* verb, AspitoolBlockSink sink, void* context, FILE* err);

/* Progress of a long transfer on err: percent, MiB/s and time left,
 * redrawn in place on a terminal, a plain line at each quarter otherwise. */
typedef struct {
  FILE* err;
  const char* verb;
  unsigned long long total, shownQuarter;
  double start, lastDrawn;
  int terminal, drawn;
} AspitoolProgress;

double aspitool_now(void);
void aspitool_progress_start(AspitoolProgress* progress, FILE* err, const char* verb, unsigned long long blocks);
void aspitool_progress_update(AspitoolProgress* progress, unsigned long long done);
/* Clears a line drawn in place. */
void aspitool_progress_end(AspitoolProgress* progress);

/* ---- Linux nodes (aspitool_nodes.cpp, aspitool_unseen.c) ---- */

#define ASPITOOL_NODE_LENGTH 64

typedef struct {
  char generic[ASPITOOL_NODE_LENGTH]; /* /dev/sgN (/dev/hdX on the IDE path) */
  char block[ASPITOOL_NODE_LENGTH];   /* /dev/srN; empty when unknown */
} AspitoolNodes;

/* The nodes of the device at address in the library's registry; 0 when it
 * has no such device. */
int aspitool_device_nodes(const AspitoolAddress* address, AspitoolNodes* nodes);
/* Devices in the library's registry. */
int aspitool_registry_devices(void);
/* Whether another program holds open exclusively the generic node of the
 * Linux SCSI device host:0:target:lun (aspitool_unseen.c). */
int aspitool_scsi_node_held(int host, int target, int lun);
struct stat;
/* The address of the device whose generic or block node node is; 0 when
 * the library reaches no such device. */
int aspitool_find_node(const struct stat* node, AspitoolAddress* address);

/* When the machine has more CD/DVD drives than the library's seen, says on
 * err why, from what the machine shows: nodes that cannot be opened (their
 * group, or another program holding them), drives without a generic node
 * (the sg module), or no drive at all. Returns how many drives the machine
 * has. */
int aspitool_explain_unseen(FILE* err, int seen);

/* ---- JSON output (aspitool_json.c) ---- */

/* "text" with JSON's escapes; null for an empty text when emptyIsNull. */
void aspitool_json_string(FILE* out, const char* text, int emptyIsNull);
/* The disc command's report as one JSON object, from its own words. */
int aspitool_run_disc_json(char** arguments, int count, FILE* out, FILE* err);

/* The burning commands (aspitool_burn.c). */
int aspitool_run_disc(char** arguments, int count, FILE* out, FILE* err);
int aspitool_run_write(char** arguments, int count, FILE* out, FILE* err);
int aspitool_run_close(char** arguments, int count, FILE* out, FILE* err);

/* How the burning commands wait for a busy drive; tests put a clock of
 * their own here. */
extern void (*aspitool_burn_pause)(double seconds);

#ifdef __cplusplus
}
#endif

#endif
