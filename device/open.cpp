#include "device/open.h"
#include "device/open_internal.h"

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

int OpenFlagsFor(SCSI_NodeKind kind) {
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

// Without O_NONBLOCK the generic driver does not answer EBUSY while another
// descriptor holds the node with O_EXCL, it waits; and an O_EXCL open waits
// while any descriptor is open. That wait would happen here, with RescanLock
// and DevicesMapLock held, and stall every request of the process (or, when
// exclusive mode opens while another thread's request has the drive open,
// never end). So the open asks for an answer at once, which lets the EBUSY
// retries work, and the flag is cleared again: the descriptor ends with the
// usual flags, so that read waits for the reply. F_SETFL changes only the
// status flags (of those asked for here, O_NONBLOCK alone) and ignores the
// access mode and O_EXCL, so the open's own flags serve without an F_GETFL.
int OpenGenericNodeWithoutWaiting(const char* path, int flags) {
  const int fd = OpenRetryingWhileBusy(path, flags | O_NONBLOCK);
  if (fd == -1) return -1;
  if (kavo::os::Fcntl(fd, F_SETFL, flags) == 0) return fd;
  kavo::os::Close(fd);
  return -1;
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
void UnmountBeforeExclusiveOpen(const SCSI_DeviceProperties& device, SCSI_NodeKind kind) {
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

// Opens a registered device whose node is of kind; RescanLock and
// DevicesMapLock are held.
int OpenRegisteredDevice(const SCSI_DeviceProperties& device, SCSI_NodeKind kind, int bExclusive,
                         int* pBlockFileDesc) {
  int flags = OpenFlagsFor(kind);
  if (bExclusive == 1) {
    flags |= O_EXCL;
    UnmountBeforeExclusiveOpen(device, kind);
  }
  if (kind != kGenericNode) return OpenRetryingWhileBusy(device.DevicePath.GetString(), flags);
  const int fd = OpenGenericNodeWithoutWaiting(device.DevicePath.GetString(), flags);
  if (fd == -1) return -1;
  PrepareGenericDescriptor(fd);
  if (pBlockFileDesc != nullptr && !device.BlockDevicePath.IsEmpty())
    *pBlockFileDesc = kavo::os::Open(device.BlockDevicePath.GetString(), O_RDONLY | O_NONBLOCK);
  return fd;
}

// A byte loop rather than memcmp: device paths are a dozen bytes, and the
// call would cost more than the compare.
bool SameText(const CBasicString<char>& a, const CBasicString<char>& b) {
  const int length = a.GetLength();
  if (length != b.GetLength()) return false;
  const char* x = a.GetString();
  const char* y = b.GetString();
  for (int i = length - 1; i >= 0; --i)  // from the end, where device paths differ
    if (x[i] != y[i]) return false;
  return true;
}

// The cache entry under path, or null. The cache holds an entry or two per
// held drive, so a scan for the equal string beats the ordered search.
const SCSI_RefCountedFileDesc* HeldUnder(const CBasicString<char>& path) {
  for (const auto& entry : OpenedDevicesMap)
    if (SameText(entry.first, path)) return entry.second;
  return nullptr;
}

// The cached descriptor of a drive held exclusively, pinned for the
// request, or null when the drive is not held. DevicesMapLock is held,
// which is enough to read OpenedDevicesMap (it changes only under both map
// locks) and to pin; with no drive held at all nothing is searched.
SCSI_DescriptorPin* PinHeldDescriptor(const SCSI_DeviceProperties& device, int* fd) {
  const SCSI_RefCountedFileDesc* held = HeldUnder(device.DevicePath);
  if (held == nullptr || held->nFileDesc < 0) return nullptr;
  *fd = held->nFileDesc;
  return SCSI_PinCachedDescriptor(*fd);
}

// The device's lock, when it is free now, taken while the record is at
// hand; null when it is busy (the request then polls for it).
CPosixMutex* TryDeviceLock(const SCSI_DeviceProperties& device) {
  return device.DeviceLock->Lock(0) == 1 ? device.DeviceLock : nullptr;
}

// The locks of one request's lookup. DevicesMapLock comes first, since a
// held drive's pinned descriptor needs nothing more; only an open needs
// RescanLock. That one is tried while DevicesMapLock is held, which cannot
// deadlock (nothing waits); when a rebuild or an exclusive open has it, the
// request lets go and takes both again in the order every waiting path uses,
// RescanLock first, and looks the device up afresh.
class RequestLookupLocks {
 public:
  RequestLookupLocks() { SCSI_AcquireDevicesMapLock(); }
  ~RequestLookupLocks() {
    SCSI_ReleaseDevicesMapLock();
    if (rescanLockHeld_) RescanLock.Unlock();
  }
  RequestLookupLocks(const RequestLookupLocks&) = delete;
  RequestLookupLocks& operator=(const RequestLookupLocks&) = delete;

  // True when RescanLock is held, as an open requires; false when it was
  // only had by waiting, so that the lookup must be made again.
  bool HoldRescanLockWithoutWaiting() {
    if (rescanLockHeld_) return true;
    rescanLockHeld_ = true;
    if (RescanLock.Lock(0) == 1) return true;
    SCSI_ReleaseDevicesMapLock();
    RescanLock.Lock(0xFFFFFFFF);
    SCSI_AcquireDevicesMapLock();
    return false;
  }

 private:
  bool rescanLockHeld_ = false;
};

}  // namespace

int SCSI_OpenDevice(int nHost, int nChannel, int nTarget, int nLun, int bExclusive, int* pBlockFileDesc) {
  if (pBlockFileDesc != nullptr) *pBlockFileDesc = -1;
  RegistryOpenHold hold;
  const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, nChannel, nTarget, nLun);
  if (device == nullptr) return -1;
  return OpenRegisteredDevice(*device, SCSI_KindOfNode(device->DevicePath), bExclusive, pBlockFileDesc);
}

// The cached descriptor's number is only good while DevicesMapLock is
// held: once it is released an unset or a rebuild may close it and another
// thread's open may get the same number for another drive. So it is pinned
// here, and such a close waits for the request to unpin it; the open file
// keeps its O_EXCL hold, its pending command length and its queued reply
// meanwhile. (A dup would do the same at the price of two system calls a
// request.) The node kind comes from the same record, so the path a request
// takes always fits its node. A drive that is not held is opened under
// RescanLock as well, so that no rebuild runs during the open.
SCSI_RequestDescriptor SCSI_OpenForRequest(int host, int channel, int target, int lun, bool ideCommandFits) {
  RequestLookupLocks locks;
  for (;;) {
    SCSI_RequestDescriptor request = {-1, nullptr, kOtherNode, false, nullptr, false};
    const SCSI_DeviceProperties* device = SCSI_LookUpDevice(host, channel, target, lun);
    if (device == nullptr) return request;
    request.registered = true;
    request.kind = SCSI_RegisteredNodeKind(device);
    request.onRealScsiHost = SCSI_IsOnRealScsiHost(device);
    if (request.kind == kIdeNode && !ideCommandFits) return request;
    request.pin = PinHeldDescriptor(*device, &request.fd);
    if (request.pin != nullptr) {
      request.deviceLock = TryDeviceLock(*device);
      return request;
    }
    if (!locks.HoldRescanLockWithoutWaiting()) continue;
    // Tried before the open: the record is not read again after it.
    request.deviceLock = TryDeviceLock(*device);
    request.fd = OpenRegisteredDevice(*device, request.kind, 0, nullptr);
    if (request.fd == -1 && request.deviceLock != nullptr) {
      request.deviceLock->Unlock();  // still registered: DevicesMapLock is held
      request.deviceLock = nullptr;
    }
    return request;
  }
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
