// The walk over numbered device nodes that every scanner shares, and the
// presence probe built on it.
#include <errno.h>
#include <fcntl.h>
#include <scsi/scsi.h>
#include <stdio.h>
#include <string.h>

#include "device/registry_internal.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "runtime/os.h"

namespace {

const int kLastNodeNumber = 999;
const int kFailuresThatEndAWalk = 16;

enum class NodeOutcome { Taken, Skipped, Failed };

// Opens path and asks for its SCSI address. Taken leaves *fd open.
NodeOutcome ProbeNode(char const* path, int flags, int* fd, SCSI_NodeAddress* address) {
  *fd = kavo::os::Open(path, flags);
  if (*fd < 0) return errno == EACCES || errno == EBUSY ? NodeOutcome::Skipped : NodeOutcome::Failed;
  int idLun[2] = {0, 0};
  int bus = 0;
  if (kavo::os::Ioctl(*fd, SCSI_IOCTL_GET_IDLUN, idLun) < 0 ||
      kavo::os::Ioctl(*fd, SCSI_IOCTL_GET_BUS_NUMBER, &bus) < 0) {
    kavo::os::Close(*fd);
    return NodeOutcome::Failed;
  }
  address->host = bus;
  address->target = idLun[0] & 0xFF;
  address->lun = (idLun[0] >> 8) & 0xFF;
  address->channel = (idLun[0] >> 16) & 0xFF;
  return NodeOutcome::Taken;
}

bool IsRegistered(int adapter, int channel, int target, int lun) {
  DevicesMapHold hold;
  return SCSI_GetDeviceProperties(adapter, channel, target, lun) != nullptr;
}

}  // namespace

void SCSI_MakeSgDeviceName(char* buffer, int n) { snprintf(buffer, kDeviceNodePathSize, "/dev/sg%d", n); }

void SCSI_WalkDeviceNodes(SCSI_NodePathMaker makePath, int flags, const SCSI_NodeVisitor& visit) {
  int failures = 0;
  for (int n = 0; n <= kLastNodeNumber && failures < kFailuresThatEndAWalk; ++n) {
    char path[kDeviceNodePathSize];
    makePath(path, n);
    int fd = -1;
    SCSI_NodeAddress address;
    NodeOutcome outcome = ProbeNode(path, flags, &fd, &address);
    if (outcome == NodeOutcome::Failed) ++failures;
    if (outcome != NodeOutcome::Taken) continue;
    const bool done = visit(fd, path, address);
    kavo::os::Close(fd);
    if (done) return;
  }
}

bool SCSI_IsIdeScsiHost(int host) {
  // A copy: the name is compared after HostAdaptersMapLock is released.
  return IsKernel26 == 1 && strcmp(SCSI_CopyAdapterName(IdeAdapterCount + host).GetString(), "ide-scsi") == 0;
}

bool SCSI_IsDevicePresent(int host, int channel, int target, int lun) {
  if (IsRegistered(IdeAdapterCount + host, channel, target, lun)) return true;
  bool found = false;
  SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDONLY | O_NONBLOCK,
                       [&](int, char const*, const SCSI_NodeAddress& address) {
                         if (SCSI_IsIdeScsiHost(address.host)) return false;
                         found = address.host == host && address.channel == channel && address.target == target &&
                                 address.lun == lun;
                         return found;
                       });
  return found;
}
