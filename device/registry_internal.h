// Registry state and helpers shared inside the library.
#pragma once

#include <atomic>
#include <string.h>

#include "device/registry.h"

enum SCSI_NodeKind { kOtherNode, kGenericNode, kIdeNode };

// The kind of a device node, from the two characters after the last '/'
// of its path: /dev/sgN generic, /dev/hdX IDE, anything else other.
SCSI_NodeKind SCSI_KindOfNode(const CBasicString<char>& devicePath);

// Numbering state, written only while a registry build runs and read
// without a lock (a reader during a build may see a partial count).
extern std::atomic<int> IdeAdapterCount;
extern std::atomic<int> ControllerCount;

// Lock order: RescanLock, DevicesMapLock, OpenedDevicesMapLock. The
// HostAdaptersMapLock is never held together with DevicesMapLock.
// OpenedDevicesMap changes only while both map locks are held, so a thread
// holding either one may read it.
extern CPosixMutex RescanLock;
extern CPosixMutex DevicesMapLock;
extern CPosixMutex HostAdaptersMapLock;
extern CPosixMutex OpenedDevicesMapLock;

// DevicesMapLock is only ever taken by polling, Lock(0) and a 1 us sleep
// between attempts, never by a blocking wait.
void SCSI_AcquireDevicesMapLock();
void SCSI_ReleaseDevicesMapLock();

class DevicesMapHold {
 public:
  DevicesMapHold() { SCSI_AcquireDevicesMapLock(); }
  ~DevicesMapHold() { SCSI_ReleaseDevicesMapLock(); }
  DevicesMapHold(const DevicesMapHold&) = delete;
  DevicesMapHold& operator=(const DevicesMapHold&) = delete;
};

// "h%02dc%02dt%02dd%02d" of the four numbers.
CBasicString<char> SCSI_MakeDeviceKey(int host, int channel, int target, int lun);

// The value stored under key in one of the string-keyed maps, or null: a
// find with one key comparison fewer, since keys equal in the maps' order
// are the same C string.
template <typename Map>
typename Map::mapped_type SCSI_FindInStringMap(const Map& map, const CBasicString<char>& key) {
  typename Map::const_iterator found = map.lower_bound(key);
  if (found == map.end() || strcmp(found->first.GetString(), key.GetString()) != 0) return nullptr;
  return found->second;
}

// The record of a device, or null. Never inserts. The caller holds
// DevicesMapLock for as long as it uses the result.
SCSI_DeviceProperties* SCSI_GetDeviceProperties(int host, int channel, int target, int lun);

// A new device record with its own unowned DeviceLock, and its disposal.
// The record also keeps whether its adapter is a real SCSI host (see
// SCSI_IsOnRealScsiHost); SCSI_DeleteDeviceProperties alone may free it.
// The caller of the disposal holds DevicesMapLock; a DeviceLock that another
// thread holds is retired, not deleted, until that thread has unlocked it
// and a later disposal or registration finds it free. Given the record's
// key, a retired lock goes to the next record registered under that key
// (see SCSI_RegisterDevice).
SCSI_DeviceProperties* SCSI_NewDeviceProperties(char const* devicePath, bool onRealScsiHost);
void SCSI_DeleteDeviceProperties(SCSI_DeviceProperties* record, const CBasicString<char>& deviceKey = "");

// Whether the adapter of a record made by SCSI_NewDeviceProperties was a
// real SCSI host (as IsRealScsiAdapter answered) when its build found it.
// Read with DevicesMapLock held, like the record. An INQUIRY asks this of
// the record it found its device by, not IsRealScsiAdapter after its
// exchange: by then a rebuild may have purged the adapters (or the drive
// left), and a real host would read as emulated. The exported record's
// layout stays as it is; the flag lives in the library's own extension of
// it.
bool SCSI_IsOnRealScsiHost(const SCSI_DeviceProperties* record);

// The kind of the node a record made by SCSI_NewDeviceProperties was
// registered with, decided once when it was made, so that a request does not
// parse the path again.
SCSI_NodeKind SCSI_RegisteredNodeKind(const SCSI_DeviceProperties* record);

// Takes the device's DeviceLock by polling (as SCSI_LockDevice) and returns
// that very mutex, or null when the device is not registered. The holder
// gives it back with SCSI_UnlockDeviceLock, never by looking the device up
// again: a rebuild in between may have replaced the record. The release
// takes no registry lock (see SCSI_DeleteDeviceProperties).
CPosixMutex* SCSI_LockDeviceLock(int host, int channel, int target, int lun);
void SCSI_UnlockDeviceLock(CPosixMutex* lock);

// The adapter's name, or the text of pszUnknownHA, copied while
// HostAdaptersMapLock is held: a rebuild frees the record's own string.
CBasicString<char> SCSI_CopyAdapterName(int n);

// Stores a record under key, deleting one stored there before. Takes
// DevicesMapLock itself.
void SCSI_RegisterDevice(const CBasicString<char>& deviceKey, SCSI_DeviceProperties* record);

// Stores an adapter record under adapter unless a record is there already.
// Takes HostAdaptersMapLock itself. Returns whether the adapter's record
// (the one stored now or the one found) is of a real SCSI host.
bool SCSI_RegisterAdapter(int adapter, char const* name, int isEmulated);

// A request to a drive held exclusively uses the cache's own descriptor
// rather than a copy of it, and pins it for that time: the number must not
// be closed (and handed out again by the kernel) while the request writes
// and reads on it. Pin and close run with DevicesMapLock held (a close also
// with OpenedDevicesMapLock, as every change of OpenedDevicesMap); the unpin
// needs no lock. A close of a pinned descriptor is deferred to its last
// user's unpin.
struct SCSI_DescriptorPin;
SCSI_DescriptorPin* SCSI_PinCachedDescriptor(int fd);
void SCSI_UnpinCachedDescriptor(SCSI_DescriptorPin* pin);
void SCSI_CloseCachedDescriptor(int fd);

// The end of a request, without the registry lock: releases the device lock
// it took (as SCSI_UnlockDeviceLock) unless null, and unpins the held
// drive's descriptor it used unless pin is null.
void SCSI_ReleaseRequestHolds(CPosixMutex* deviceLock, SCSI_DescriptorPin* pin);
