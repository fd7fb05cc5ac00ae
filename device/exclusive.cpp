// Exclusive mode: a drive held by the application keeps one O_EXCL
// descriptor (and its block node open) in OpenedDevicesMap, shared by nested
// holds, and is locked in HAL while held.
#include "aspi/srb.h"
#include "device/open.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "runtime/os.h"

namespace {

const unsigned int kInfinite = 0xFFFFFFFFu;

// A set takes RescanLock before the two map locks, in the one order every
// path of the library follows (RescanLock, DevicesMapLock,
// OpenedDevicesMapLock). The exclusive open inside then only nests
// RescanLock, so no thread ever holds a map lock while it waits for
// RescanLock, and a set cannot meet a rescan in a deadlock: the two simply
// take turns at RescanLock.
class SetLocks {
 public:
  SetLocks() {
    RescanLock.Lock(kInfinite);
    SCSI_AcquireDevicesMapLock();
    OpenedDevicesMapLock.Lock(kInfinite);
  }
  ~SetLocks() {
    OpenedDevicesMapLock.Unlock();
    SCSI_ReleaseDevicesMapLock();
    RescanLock.Unlock();
  }
  SetLocks(const SetLocks&) = delete;
  SetLocks& operator=(const SetLocks&) = delete;
};

// An unset does not take RescanLock: a rescan waits for the last hold to
// end, and the unset that ends it must never wait for the rescan.
class UnsetLocks {
 public:
  UnsetLocks() {
    SCSI_AcquireDevicesMapLock();
    OpenedDevicesMapLock.Lock(kInfinite);
  }
  ~UnsetLocks() {
    OpenedDevicesMapLock.Unlock();
    SCSI_ReleaseDevicesMapLock();
  }
  UnsetLocks(const UnsetLocks&) = delete;
  UnsetLocks& operator=(const UnsetLocks&) = delete;
};

// The cache entry under path, or null. OpenedDevicesMapLock is held.
SCSI_RefCountedFileDesc* HoldUnder(const CBasicString<char>& path) {
  SCSI_OpenedDevicesMap::const_iterator found = OpenedDevicesMap.find(path);
  return found == OpenedDevicesMap.end() ? nullptr : found->second;
}

void CloseHeldDescriptor(SCSI_RefCountedFileDesc* hold) {
  SCSI_CloseCachedDescriptor(hold->nFileDesc);
  hold->nFileDesc = -1;
}

// Stores a new entry of one hold. An entry already under path (only a block
// node two registered drives share can have one) is replaced, and its
// descriptor closed, rather than leaked.
SCSI_RefCountedFileDesc* StoreHold(const CBasicString<char>& path, int fd) {
  SCSI_RefCountedFileDesc*& slot = OpenedDevicesMap[path];
  if (slot != nullptr) {
    CloseHeldDescriptor(slot);
    delete slot;
  }
  slot = new SCSI_RefCountedFileDesc{fd, 1, false};
  return slot;
}

// Drops one reference of the entry under path; the last closes it.
// Returns the entry while it lives on, null once it is gone.
SCSI_RefCountedFileDesc* ReleaseHold(const CBasicString<char>& path) {
  SCSI_RefCountedFileDesc* hold = HoldUnder(path);
  if (hold == nullptr || --hold->nRefCount >= 1) return hold;
  CloseHeldDescriptor(hold);
  OpenedDevicesMap.erase(path);
  delete hold;
  return nullptr;
}

bool HalKnows(const SCSI_DeviceProperties& device) {
  return libhal_support_is_available() && !device.HalUdi.IsEmpty();
}

}  // namespace

namespace {

int SetExclusiveMode(int nHost, int nTarget) {
  SetLocks locks;
  const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, 0, nTarget, 0);
  if (device == nullptr) return -1;
  SCSI_RefCountedFileDesc* held = HoldUnder(device->DevicePath);
  if (held != nullptr) {
    ++held->nRefCount;
    return 0;
  }
  int blockFd = -1;
  const int fd = SCSI_OpenDevice(nHost, 0, nTarget, 0, 1, &blockFd);
  if (fd == -1) return -1;
  SCSI_RefCountedFileDesc* hold = StoreHold(device->DevicePath, fd);
  if (blockFd != -1) StoreHold(device->BlockDevicePath, blockFd);
  if (HalKnows(*device)) hold->bHalLocked = libhal_support_lock_device(device->HalUdi.GetString());
  return 0;
}

// The block node's entry is released at every unset while its count only
// starts at 1: a drive held twice gives its block node back at the first
// unset and keeps the exclusive descriptor until the last. A request in
// flight has the descriptor pinned, so the close here drops only the
// cache's hold; the request's unpin closes it.
int UnsetExclusiveMode(int nHost, int nTarget) {
  UnsetLocks locks;
  const SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(nHost, 0, nTarget, 0);
  if (device == nullptr) return -1;
  SCSI_RefCountedFileDesc* hold = HoldUnder(device->DevicePath);
  if (hold == nullptr) return -1;
  const bool halLocked = hold->bHalLocked;
  if (ReleaseHold(device->DevicePath) == nullptr && halLocked && HalKnows(*device))
    libhal_support_unlock_device(device->HalUdi.GetString());
  if (!device->BlockDevicePath.IsEmpty()) ReleaseHold(device->BlockDevicePath);
  return 0;
}

}  // namespace

// Nothing throws across these C entry points; a hold that cannot be
// recorded for want of memory is refused.
int ASPI_setExclusiveMode(int nHost, int nTarget) {
  try {
    return SetExclusiveMode(nHost, nTarget);
  } catch (...) {
    return -1;
  }
}

int ASPI_unsetExclusiveMode(int nHost, int nTarget) {
  try {
    return UnsetExclusiveMode(nHost, nTarget);
  } catch (...) {
    return -1;
  }
}
