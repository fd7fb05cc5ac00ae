// Building and rebuilding the device registry: the purge, the order of the
// passes, the block-node and HAL passes, and the rescan.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "runtime/os.h"

namespace {

const unsigned int kRescanPollMicroseconds = 500;

// The record whose DevicePath is path, or null. DevicesMapLock is held.
SCSI_DeviceProperties* DeviceWithPath(const CBasicString<char>& path) {
  for (const auto& entry : DevicesMap)
    if (entry.second != nullptr && UnicodeStringCmp<char>(entry.second->DevicePath.GetString(), path.GetString(), -1) == 0)
      return entry.second;
  return nullptr;
}

// Closes the cached descriptor and gives back the HAL lock taken with it.
// DevicesMapLock and OpenedDevicesMapLock are held.
void ReleaseHold(const CBasicString<char>& devicePath, SCSI_RefCountedFileDesc* hold) {
  if (hold == nullptr) return;
  SCSI_CloseCachedDescriptor(hold->nFileDesc);
  hold->nFileDesc = -1;
  if (hold->bHalLocked) {
    const SCSI_DeviceProperties* device = DeviceWithPath(devicePath);
    if (device != nullptr && libhal_support_is_available() && !device->HalUdi.IsEmpty())
      libhal_support_unlock_device(device->HalUdi.GetString());
  }
  delete hold;
}

void PurgeDescriptorCache() {
  CPosixSingleLock hold(&OpenedDevicesMapLock, 1);
  for (const auto& entry : OpenedDevicesMap) ReleaseHold(entry.first, entry.second);
  OpenedDevicesMap.clear();
}

void PurgeRegistry() {
  SCSI_AcquireDevicesMapLock();
  PurgeDescriptorCache();
  for (const auto& entry : DevicesMap) SCSI_DeleteDeviceProperties(entry.second, entry.first);
  DevicesMap.clear();
  SCSI_ReleaseDevicesMapLock();
  {
    CPosixSingleLock hold(&HostAdaptersMapLock, 1);
    for (const auto& entry : HostAdaptersMap) delete entry.second;
    HostAdaptersMap.clear();
  }
  IdeAdapterCount = 0;
  ControllerCount = 0;
}

// "/dev/scd%d", or "/dev/sr%d" where the first does not exist.
void MakeBlockNodeName(char* path, int n) {
  snprintf(path, kDeviceNodePathSize, "/dev/scd%d", n);
  if (kavo::os::Access(path, F_OK) != 0) snprintf(path, kDeviceNodePathSize, "/dev/sr%d", n);
}

// Whether OpenedDevicesMap is empty. Only tried: the caller holds
// RescanLock and must not wait for a map lock meanwhile.
bool TryNoExclusiveHolds(bool* empty) {
  if (OpenedDevicesMapLock.Lock(0) != 1) return false;
  *empty = OpenedDevicesMap.empty();
  OpenedDevicesMapLock.Unlock();
  return true;
}

// One attempt of the rescan: rebuilds under RescanLock and DevicesMapLock
// when neither lock is contended and no drive is held exclusively.
bool TryRebuildWhileIdle() {
  CPosixSingleLock rescan(&RescanLock, 1);
  if (DevicesMapLock.Lock(0) != 1) return false;
  bool empty = false;
  const bool rebuilt = TryNoExclusiveHolds(&empty) && empty;
  if (rebuilt) SCSI_BuildRegistry();
  DevicesMapLock.Unlock();
  return rebuilt;
}

}  // namespace

void SCSI_ScanBlockNodes() {
  SCSI_WalkDeviceNodes(MakeBlockNodeName, O_RDONLY | O_NONBLOCK,
                       [](int, char const* path, const SCSI_NodeAddress& address) {
                         if (SCSI_IsIdeScsiHost(address.host)) return false;
                         DevicesMapHold hold;
                         SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(
                             IdeAdapterCount + address.host, address.channel, address.target, address.lun);
                         if (device != nullptr) device->BlockDevicePath = path;
                         return false;
                       });
}

void SCSI_MatchHalUdis() {
  if (!libhal_support_is_available()) return;
  unsigned int count = 0;
  char** udis = libhal_support_get_all_cdrom_devices(&count);
  if (udis == nullptr) return;
  {
    DevicesMapHold hold;
    for (const auto& entry : DevicesMap) {
      SCSI_DeviceProperties* device = entry.second;
      if (device == nullptr) continue;
      for (unsigned int i = 0; i < count; ++i) {
        if (udis[i] == nullptr) continue;
        char* blockDevice = libhal_support_get_block_device(udis[i]);
        if (blockDevice == nullptr) continue;
        const bool matches = strcmp(blockDevice, device->DevicePath.GetString()) == 0 ||
                             strcmp(blockDevice, device->BlockDevicePath.GetString()) == 0;
        libhal_support_free_string(blockDevice);
        if (matches) {
          device->HalUdi = udis[i];
          break;
        }
      }
    }
  }
  libhal_support_free_string_array(udis);
}

void SCSI_BuildRegistry() {
  PurgeRegistry();
  if (IsKernel26 == 1) SCSI_ScanIdeDevices();
  SCSI_ScanSgDevices();
  SCSI_ScanBlockNodes();
  SCSI_MatchHalUdis();
}

// The wait for exclusive holds to end does not keep RescanLock: every
// SCSI_OpenDevice waits for that lock, so an application holding one drive
// and opening another on the same thread would never get to release its
// hold. Each attempt takes RescanLock, then only tries DevicesMapLock and
// OpenedDevicesMapLock, so the rescan never sits on RescanLock waiting for a
// map lock. Every other path, exclusive mode's set included, takes RescanLock
// before the map locks, so the order is one throughout and the tries are a
// second guard against a cycle. Holding DevicesMapLock across the rebuild
// keeps a new hold from starting between the check and the purge; the passes
// then wait for HostAdaptersMapLock inside it, which is safe because no
// thread waits for DevicesMapLock while it holds HostAdaptersMapLock. The wait
// has no time limit (a rescan must not be lost while a drive is held) but
// ends when SCSI_Done asks the monitor to stop.
bool SCSI_Rescan() {
  while (!TryRebuildWhileIdle()) {
    if (MonitorStopRequest.load() != 0) return false;
    kavo::os::SleepMicroseconds(kRescanPollMicroseconds);
  }
  return true;
}

void SCSI_ResetDiscoveryState() {
  PurgeRegistry();
  IsKernel26 = 0;
}
