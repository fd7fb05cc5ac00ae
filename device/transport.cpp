#include "device/transport.h"

#include <stdio.h>

#include <string>
#include <vector>

#include "device/transport_internal.h"
#include "runtime/os.h"

namespace {

// Command lengths by operation-code group (opcode >> 5). Group 4 is taken
// as 12 bytes; 16-byte commands of that group need SG_NEXT_CMD_LEN.
const unsigned char kGroupCommandLength[8] = {6, 10, 10, 12, 12, 12, 10, 10};

int DefaultCommandLength(int opcode) { return kGroupCommandLength[(opcode >> 5) & 7]; }

}  // namespace

int SCSI_LinuxDeviceIo(int fd, sg_header* request, unsigned int requestLength, sg_header* reply,
                       unsigned int replyLength, unsigned int* bytesRead) {
  return SCSI_ExchangeOnce(fd, request, requestLength, reply, replyLength, bytesRead);
}

int SCSI_LinuxSetTimeout(int fd, int timeout) { return kavo::os::Ioctl(fd, SG_SET_TIMEOUT, &timeout); }

void SCSI_Fix_CMD_LEN(int fd, int opcode, int cdbLength) { SCSI_ArmCommandLength(fd, opcode, cdbLength); }

bool SCSI_ArmCommandLength(int fd, int opcode, int cdbLength) {
  if (DefaultCommandLength(opcode) == cdbLength) return false;
  kavo::os::Ioctl(fd, SG_NEXT_CMD_LEN, &cdbLength);
  return true;
}

void SCSI_DisarmCommandLength(int fd) {
  int none = 0;
  kavo::os::Ioctl(fd, SG_NEXT_CMD_LEN, &none);
}

int SCSI_isadapter(int host, char* dirPath) {
  char hostName[16];
  snprintf(hostName, sizeof hostName, "%d", host);
  std::vector<std::string> names;
  if (!kavo::os::ListDirectory(dirPath, names)) return 0;
  int found = 0;
  for (const std::string& name : names)
    if (name == hostName) found = 1;
  return found;
}
