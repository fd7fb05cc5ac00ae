// Registry state and helpers shared inside the library.
#pragma once

#include <atomic>
#include <string.h>

#include "device/registry.h"
#include "runtime/os.h"

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

// Counts the records ever freed; DevicesMapLock guards it. A record found
// while it had a value is still the one in the map under its key as long as
// it has that value: the library takes a record out of the map only to free
// it (a purge, a replacement), and a key that gets a record where it had
// none never had one found.
extern unsigned long long RecordsFreed;

// The record a thread found last, with its address and the count of freed
// records at that time; a plain block, so it costs nothing at thread exit.
// Initial-exec: read at a fixed offset from the thread pointer instead of
// through __tls_get_addr on every request. The loader keeps spare static
// TLS for libraries loaded later that do this; the library's share of it is
// this block and the exchange buffer's (aspi/execute.cpp), a few dozen
// bytes.
struct SCSI_LastFound {
  int host, channel, target, lun;
  SCSI_DeviceProperties* record;  // null: nothing remembered
  unsigned long long recordsFreed;
};
extern __attribute__((tls_model("initial-exec"))) thread_local SCSI_LastFound LastFoundRecord;

// The map search behind SCSI_GetDeviceProperties, remembering its answer.
SCSI_DeviceProperties* SCSI_FindAndRememberDevice(int host, int channel, int target, int lun);

// SCSI_GetDeviceProperties inline, for the request path. Requests mostly
// follow each other to one device, so a thread's last find answers again
// while no record has been freed since; else the map is searched.
inline SCSI_DeviceProperties* SCSI_LookUpDevice(int host, int channel, int target, int lun) {
  const SCSI_LastFound& last = LastFoundRecord;
  if (last.record != nullptr && last.recordsFreed == RecordsFreed && last.host == host && last.channel == channel &&
      last.target == target && last.lun == lun)
    return last.record;
  return SCSI_FindAndRememberDevice(host, channel, target, lun);
}

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
//
// A pin's state counts its users in steps of kPinUser beside the bit
// kLetGo, set once the cache has let go of fd; kLetGo alone means fd is
// closed and the entry spare. An entry lives until unload.
struct SCSI_DescriptorPin {
  static const int kPinUser = 2;
  static const int kLetGo = 1;
  int fd;                  // written under DevicesMapLock while no one uses the entry
  std::atomic<int> state;  // users * kPinUser, plus kLetGo
};
SCSI_DescriptorPin* SCSI_PinCachedDescriptor(int fd);
void SCSI_CloseCachedDescriptor(int fd);

// Without a lock: the entry stays where it is, and of its last user and
// the cache's close, the later one closes fd (the state says which).
// Nothing of the entry is touched after the decrement: from then on it may
// be spare, and taken again.
inline void SCSI_UnpinCachedDescriptor(SCSI_DescriptorPin* pin) {
  const int fd = pin->fd;
  if (pin->state.fetch_sub(SCSI_DescriptorPin::kPinUser, std::memory_order_acq_rel) ==
      SCSI_DescriptorPin::kPinUser + SCSI_DescriptorPin::kLetGo)
    kavo::os::Close(fd);
}

// The end of a request, without the registry lock: releases the device lock
// it took (as SCSI_UnlockDeviceLock) unless null, and unpins the held
// drive's descriptor it used unless pin is null. Inline, as
// SCSI_LookUpDevice: every request comes here.
inline void SCSI_ReleaseRequestHolds(CPosixMutex* deviceLock, SCSI_DescriptorPin* pin) {
  if (deviceLock != nullptr) deviceLock->Unlock();
  if (pin != nullptr) SCSI_UnpinCachedDescriptor(pin);
}
