#include "device/open.h"

#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <string.h>

#include "device/registry_internal.h"
#include "device/unmount_internal.h"
#include "runtime/os.h"

namespace {

const int kOpenAttempts = 11;
const unsigned int kBusyRetryMicroseconds = 100;
const int kReservedBufferSize = 131072;  // the largest transfer reported to applications
const int kGenericCommandTimeout = 10800000;

enum NodeKind { kOtherNode, kGenericNode, kIdeNode };

// Decided by the two characters after the last '/' of the path.
NodeKind KindOfNode(const char* devicePath) {
  const char* name = strrchr(devicePath, '/');
  if (name == nullptr || name[1] == '\0') return kOtherNode;
  if (name[1] == 's' && name[2] == 'g') return kGenericNode;
  if (name[1] == 'h' && name[2] == 'd') return kIdeNode;
  return kOtherNode;
}

int OpenFlagsFor(NodeKind kind) {
  switch (kind) {
    case kGenericNode:
      return O_RDWR;
    case kIdeNode:
      return O_RDWR | O_NONBLOCK;
    default:
      return O_RDONLY;
  }
}

// A node that is busy (typically still closing elsewhere) gets ten more
// tries 100 us apart; any other error ends the attempts at once.
int OpenRetryingWhileBusy(const char* path, int flags) {
  for (int attempt = 1;; ++attempt) {
    int fd = kavo::os::Open(path, flags);
    if (fd != -1 || errno != EBUSY || attempt == kOpenAttempts) return fd;
    kavo::os::SleepMicroseconds(kBusyRetryMicroseconds);
  }
}

// Ioctl failures are ignored: the driver keeps its defaults then.
void PrepareGenericDescriptor(int fd) {
  int reservedSize = kReservedBufferSize;
  kavo::os::Ioctl(fd, SG_SET_RESERVED_SIZE, &reservedSize);
  int timeout = kGenericCommandTimeout;
  kavo::os::Ioctl(fd, SG_SET_TIMEOUT, &timeout);
}

// Runs on the path whose volumes may be mounted: the block node of a
// generic drive, the device node itself otherwise.
void UnmountBeforeExclusiveOpen(const SCSI_DeviceProperties& device, NodeKind kind) {
  CBasicString<char> mountCheckPath = kind == kGenericNode ? device.BlockDevicePath : device.DevicePath;
  // A generic drive without a known block node has nothing to check: an
  // empty path would match every mount and unmount everything, so the
  // chain is skipped and the exclusive open alone decides.
  if (mountCheckPath.IsEmpty()) return;
  SCSI_UnmountVolumes(mountCheckPath.GetString());
}

class RegistryOpenHold {
 public:
  RegistryOpenHold() {
    RescanLock.Lock(0xFFFFFFFF);
    SCSI_AcquireDevicesMapLock();
  }
  ~RegistryOpenHold() {
    SCSI_ReleaseDevicesMapLock();
    RescanLock.Unlock();
  }
  RegistryOpenHold(const RegistryOpenHold&) = delete;
  RegistryOpenHold& operator=(const RegistryOpenHold&) = delete;
};

}  // namespace

int SCSI_OpenDevice(int nHost, int nChannel, int nTarget, int nLun, int bExclusive, int* pBlockFileDesc) {
  if (pBlockFileDesc != nullptr) *pBlockFileDesc = -1;
  RegistryOpenHold hold;
  const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, nChannel, nTarget, nLun);
  if (device == nullptr) return -1;
  const NodeKind kind = KindOfNode(device->DevicePath.GetString());
  int flags = OpenFlagsFor(kind);
  if (bExclusive == 1) {
    flags |= O_EXCL;
    UnmountBeforeExclusiveOpen(*device, kind);
  }
  const int fd = OpenRetryingWhileBusy(device->DevicePath.GetString(), flags);
  if (fd == -1 || kind != kGenericNode) return fd;
  PrepareGenericDescriptor(fd);
  if (pBlockFileDesc != nullptr && !device->BlockDevicePath.IsEmpty())
    *pBlockFileDesc = kavo::os::Open(device->BlockDevicePath.GetString(), O_RDONLY | O_NONBLOCK);
  return fd;
}

int SCSI_GetDeviceFileDesc(int nHost, int nChannel, int nTarget, int nLun) {
  DevicesMapHold hold;
  const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, nChannel, nTarget, nLun);
  if (device == nullptr) return -1;
  CPosixSingleLock openedHold(&OpenedDevicesMapLock, 1);
  SCSI_OpenedDevicesMap::const_iterator found = OpenedDevicesMap.find(device->DevicePath);
  if (found == OpenedDevicesMap.end() || found->second == nullptr) return -1;
  return found->second->nFileDesc;
}

// The wait is bounded by the device's presence: a device found missing from
// the registry (a rescan removed it after the caller opened it) ends the
// wait at once with 0 instead of polling for a lock that no longer exists.
int SCSI_LockDevice(int nHost, int nChannel, int nTarget, int nLun) {
  for (;;) {
    if (DevicesMapLock.Lock(0) == 1) {
      const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, nChannel, nTarget, nLun);
      const bool registered = device != nullptr;
      const bool locked = registered && device->DeviceLock->Lock(0) == 1;
      SCSI_ReleaseDevicesMapLock();
      if (locked) return 1;
      if (!registered) return 0;
    }
    kavo::os::SleepMicroseconds(1);
  }
}

int SCSI_UnlockDevice(int nHost, int nChannel, int nTarget, int nLun) {
  DevicesMapHold hold;
  SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, nChannel, nTarget, nLun);
  if (device != nullptr) device->DeviceLock->Unlock();
  return 1;
}
