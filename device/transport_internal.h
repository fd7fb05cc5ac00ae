// The command exchange, inline for the request path, and the command
// length a descriptor carries into its next write.
#pragma once

#include <errno.h>
#include <scsi/sg.h>
#include <stddef.h>

#include "runtime/os.h"

// A signal that interrupts the call before it moved anything is not an
// answer: the request was not taken, or the reply is still queued on the
// descriptor, where the next request would read it as its own.
template <typename Transfer>
ssize_t SCSI_RetryWhileInterrupted(Transfer transfer) {
  ssize_t moved;
  do moved = transfer();
  while (moved < 0 && errno == EINTR);
  return moved;
}

// SCSI_LinuxDeviceIo itself (see device/transport.h), inline: every request
// makes one.
inline int SCSI_ExchangeOnce(int fd, sg_header* request, unsigned int requestLength, sg_header* reply,
                             unsigned int replyLength, unsigned int* bytesRead) {
  ssize_t written = SCSI_RetryWhileInterrupted([&] { return kavo::os::Write(fd, request, requestLength); });
  if (written < 0 || static_cast<size_t>(written) != requestLength) {
    *bytesRead = 0;
    return 0;
  }
  ssize_t received = SCSI_RetryWhileInterrupted([&] { return kavo::os::Read(fd, reply, replyLength); });
  *bytesRead = static_cast<unsigned int>(received);
  return received >= 0 && static_cast<size_t>(received) == replyLength ? 1 : 0;
}

// SCSI_Fix_CMD_LEN that tells whether it issued SG_NEXT_CMD_LEN.
bool SCSI_ArmCommandLength(int fd, int opcode, int cdbLength);

// The driver drops a pending length only when a write is accepted; after a
// rejected write it would cut the next command of the descriptor to it, so
// a failed exchange clears it (SG_NEXT_CMD_LEN 0) under the device's lock.
void SCSI_DisarmCommandLength(int fd);
