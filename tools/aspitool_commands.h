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

#ifdef __cplusplus
}
#endif

#endif
