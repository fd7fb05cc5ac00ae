// The SCSI generic transport: one command exchange over the generic
// driver's write/read interface, the two descriptor options it offers, and
// the directory query that tells which /proc/scsi driver owns a host.
#pragma once

#include <scsi/sg.h>

#include "runtime/export.h"

// Writes the whole request, then reads the reply. 1 when the request went out
// in full and exactly replyLength bytes came back, else 0. *bytesRead gets
// the read's result (all ones when the read failed), or 0 when the write
// already failed. A reply with a non-zero result is still a success here.
KAVO_API int SCSI_LinuxDeviceIo(int fd, sg_header* request, unsigned int requestLength, sg_header* reply,
                                unsigned int replyLength, unsigned int* bytesRead);

// SG_SET_TIMEOUT in the driver's unit (hundredths of a second); the ioctl's
// result.
KAVO_API int SCSI_LinuxSetTimeout(int fd, int timeout);

// Tells the driver the length of the next command written to fd when it
// differs from the length the driver would infer from the operation code's
// group. Failures of the ioctl are not reported.
KAVO_API void SCSI_Fix_CMD_LEN(int fd, int opcode, int cdbLength);

// 1 when the directory has an entry named by the decimal text of host.
KAVO_API int SCSI_isadapter(int host, char* dirPath);
