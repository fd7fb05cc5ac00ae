#include "device/registry.h"

#include <stdio.h>

#include <atomic>
#include <memory>
#include <vector>

#include "device/registry_internal.h"
#include "runtime/os.h"

SCSI_DevicesMap DevicesMap;
SCSI_HostAdaptersMap HostAdaptersMap;
SCSI_OpenedDevicesMap OpenedDevicesMap;

namespace {
char kUnknownAdapterName[] = "unknown";
}

char* pszUnknownHA = kUnknownAdapterName;

std::atomic<int> IdeAdapterCount(0);
std::atomic<int> ControllerCount(0);

CPosixMutex RescanLock(0);
CPosixMutex DevicesMapLock(0);
CPosixMutex HostAdaptersMapLock(0);
CPosixMutex OpenedDevicesMapLock(0);

namespace {

// What the library allocates for each device: the exported record, and the
// kind of its adapter at the build that found it.
struct RegisteredDevice : SCSI_DeviceProperties {
  bool onRealScsiHost;
  SCSI_NodeKind nodeKind;
};

// Cached descriptors in use by requests. The list is guarded by
// DevicesMapLock, which a request holds anyway when it pins and every close
// of a cached descriptor holds too; an entry's state is atomic, so that a
// request unpins without taking that lock again. An entry lives until
// unload: once its descriptor is closed it waits, spare, for the next pin
// of any descriptor, so the list is as long as the most descriptors ever
// pinned at once, and pinning does not allocate once it has grown.
const int kPinUser = SCSI_DescriptorPin::kPinUser;
const int kLetGo = SCSI_DescriptorPin::kLetGo;
const int kClosed = kLetGo;  // no user left either: fd is closed, the entry spare

std::vector<std::unique_ptr<SCSI_DescriptorPin>> DescriptorPins;

// Device locks whose records were purged while a request held them, with
// the purged record's key (empty: none); guarded by DevicesMapLock. See
// SCSI_DeleteDeviceProperties and SCSI_RegisterDevice.
struct RetiredDeviceLock {
  CBasicString<char> deviceKey;
  CPosixMutex* lock;
};
std::vector<RetiredDeviceLock> RetiredDeviceLocks;

// The adapter's record, or null. A plain find: looking up a number never
// seen must not add an empty slot to the map.
SCSI_HostAdapterProperties* AdapterSlot(int n) {
  SCSI_HostAdaptersMap::const_iterator found = HostAdaptersMap.find(n);
  return found == HostAdaptersMap.end() ? nullptr : found->second;
}

// Whether no thread holds lock, taking nothing away: Lock(0) succeeds only
// when it is free (or held by the calling thread itself).
bool IsFree(CPosixMutex* lock) {
  if (lock->Lock(0) != 1) return false;
  lock->Unlock();
  return true;
}

// The registry's records are freed at unload, so that leak checkers see a
// clean process. Defined after the maps and locks of this file, so it is
// destroyed before them. The monitor thread is already gone by then: it is
// joined by a teardown object made at its start, destroyed before this. The
// registry lock is only tried: a thread left blocked inside the library must
// not stall the exit, and its records are then left alone. Descriptors of
// drives still held are not closed: the process is ending anyway.
class RegistryFreedAtUnload {
 public:
  ~RegistryFreedAtUnload() {
    if (DevicesMapLock.Lock(0) != 1) return;
    for (const auto& entry : DevicesMap) SCSI_DeleteDeviceProperties(entry.second);
    DevicesMap.clear();
    for (const RetiredDeviceLock& retired : RetiredDeviceLocks) delete retired.lock;
    RetiredDeviceLocks.clear();
    for (const auto& entry : OpenedDevicesMap) delete entry.second;
    OpenedDevicesMap.clear();
    DevicesMapLock.Unlock();
    if (HostAdaptersMapLock.Lock(0) != 1) return;
    for (const auto& entry : HostAdaptersMap) delete entry.second;
    HostAdaptersMap.clear();
    HostAdaptersMapLock.Unlock();
  }
} FreeRegistryAtUnload;

}  // namespace

void SCSI_AcquireDevicesMapLock() {
  while (DevicesMapLock.Lock(0) != 1) kavo::os::SleepMicroseconds(1);
}

void SCSI_ReleaseDevicesMapLock() { DevicesMapLock.Unlock(); }

namespace {

// "%02d" of value: the common case by hand, anything else through printf.
char* PutTwoDigitField(char* out, int value) {
  if (value < 0 || value > 99) return out + sprintf(out, "%02d", value);
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
}

}  // namespace

namespace {

// "h%02dc%02dt%02dd%02d" into text (room for 64); returns the length.
int PutDeviceKey(char* text, int host, int channel, int target, int lun) {
  char* out = text;
  *out++ = 'h';
  out = PutTwoDigitField(out, host);
  *out++ = 'c';
  out = PutTwoDigitField(out, channel);
  *out++ = 't';
  out = PutTwoDigitField(out, target);
  *out++ = 'd';
  out = PutTwoDigitField(out, lun);
  *out = '\0';
  return static_cast<int>(out - text);
}

}  // namespace

CBasicString<char> SCSI_MakeDeviceKey(int host, int channel, int target, int lun) {
  char text[64];
  return CBasicString<char>(text, PutDeviceKey(text, host, channel, target, lun));
}

namespace {

// The key a thread looked up last, with the numbers it was made from.
struct LastDeviceKey {
  CBasicString<char> key;
  int host = 0, channel = 0, target = 0, lun = 0;
  bool filled = false;
};

// The key is written by hand into a string each thread keeps: once grown,
// it is refilled in place, without a printf pass or an allocation, and only
// when the address differs from the thread's last one. Freed at thread exit.
SCSI_DeviceProperties* FindByKey(int host, int channel, int target, int lun) {
  thread_local LastDeviceKey last;
  if (!last.filled || last.host != host || last.channel != channel || last.target != target || last.lun != lun) {
    char text[64];
    PutDeviceKey(text, host, channel, target, lun);
    last.filled = false;  // until key and numbers agree again
    last.key = text;
    last.host = host;
    last.channel = channel;
    last.target = target;
    last.lun = lun;
    last.filled = true;
  }
  return SCSI_FindInStringMap(DevicesMap, last.key);
}

}  // namespace

unsigned long long RecordsFreed = 0;
__attribute__((tls_model("initial-exec"))) thread_local SCSI_LastFound LastFoundRecord;

SCSI_DeviceProperties* SCSI_FindAndRememberDevice(int host, int channel, int target, int lun) {
  SCSI_DeviceProperties* record = FindByKey(host, channel, target, lun);
  LastFoundRecord = {host, channel, target, lun, record, RecordsFreed};
  return record;
}

SCSI_DeviceProperties* SCSI_GetDeviceProperties(int host, int channel, int target, int lun) {
  return SCSI_LookUpDevice(host, channel, target, lun);
}

SCSI_DeviceProperties* SCSI_NewDeviceProperties(char const* devicePath, bool onRealScsiHost) {
  RegisteredDevice* record = new RegisteredDevice;
  record->DevicePath = devicePath;
  record->DeviceLock = new CPosixMutex(0);
  record->onRealScsiHost = onRealScsiHost;
  record->nodeKind = SCSI_KindOfNode(record->DevicePath);
  return record;
}

bool SCSI_IsOnRealScsiHost(const SCSI_DeviceProperties* record) {
  return static_cast<const RegisteredDevice*>(record)->onRealScsiHost;
}

SCSI_NodeKind SCSI_RegisteredNodeKind(const SCSI_DeviceProperties* record) {
  return static_cast<const RegisteredDevice*>(record)->nodeKind;
}

SCSI_NodeKind SCSI_KindOfNode(const CBasicString<char>& devicePath) {
  const char* path = devicePath.GetString();
  int slash = devicePath.GetLength() - 1;
  while (slash >= 0 && path[slash] != '/') --slash;
  if (slash < 0 || path[slash + 1] == '\0') return kOtherNode;
  const char* name = path + slash;
  if (name[1] == 's' && name[2] == 'g') return kGenericNode;
  if (name[1] == 'h' && name[2] == 'd') return kIdeNode;
  return kOtherNode;
}

namespace {

// Deletes the retired locks that no thread holds any more. DevicesMapLock is
// held, and every Lock(0) on a device lock happens under it, so a lock found
// free here stays free: no one can take it meanwhile.
void DeleteRetiredLocksNowFree() {
  for (auto retired = RetiredDeviceLocks.begin(); retired != RetiredDeviceLocks.end();) {
    if (!IsFree(retired->lock)) {
      ++retired;
      continue;
    }
    delete retired->lock;
    retired = RetiredDeviceLocks.erase(retired);
  }
}

}  // namespace

// A request keeps the lock it took, not the record: it unlocks that very
// mutex after its exchange, without the registry lock. So the record may go
// at once, but a lock that another thread holds must outlive it, or that
// thread would unlock freed memory (or, looking it up again, a new record's
// lock it never took). Such a lock is retired instead; the next record
// under its key takes it over, and once it is free a later registry change
// deletes it. A lock found free is deleted at once: the test here waits for
// the guard that a releasing thread's Unlock holds to its end, and a POSIX
// mutex may be destroyed as soon as it is unlocked, even while the thread
// that unlocked it is still returning from the call.
void SCSI_DeleteDeviceProperties(SCSI_DeviceProperties* record, const CBasicString<char>& deviceKey) {
  if (record == nullptr) return;
  ++RecordsFreed;
  DeleteRetiredLocksNowFree();
  if (record->DeviceLock != nullptr && !IsFree(record->DeviceLock))
    RetiredDeviceLocks.push_back({deviceKey, record->DeviceLock});
  else
    delete record->DeviceLock;
  delete static_cast<RegisteredDevice*>(record);
}

CPosixMutex* SCSI_LockDeviceLock(int host, int channel, int target, int lun) {
  for (;;) {
    if (DevicesMapLock.Lock(0) == 1) {
      SCSI_DeviceProperties* device = SCSI_GetDeviceProperties(host, channel, target, lun);
      CPosixMutex* lock = device == nullptr ? nullptr : device->DeviceLock;
      const bool locked = lock != nullptr && lock->Lock(0) == 1;
      SCSI_ReleaseDevicesMapLock();
      if (locked) return lock;
      if (lock == nullptr) return nullptr;
    }
    kavo::os::SleepMicroseconds(1);
  }
}

// No registry lock: the lock is the very mutex the caller took, which a
// purge retires rather than deletes while it is held.
void SCSI_UnlockDeviceLock(CPosixMutex* lock) { lock->Unlock(); }

// A pin takes an entry of fd that the cache still holds (never one whose
// fd is closed: its number may be fd again, for another file), or else a
// spare entry, or a new one. DevicesMapLock is held, and the cache holds
// fd, so no close can be under way for it.
SCSI_DescriptorPin* SCSI_PinCachedDescriptor(int fd) {
  SCSI_DescriptorPin* spare = nullptr;
  for (const std::unique_ptr<SCSI_DescriptorPin>& pin : DescriptorPins) {
    const int state = pin->state.load(std::memory_order_acquire);
    if (state == kClosed) {
      spare = pin.get();
    } else if (pin->fd == fd && (state & kLetGo) == 0) {
      pin->state.fetch_add(kPinUser, std::memory_order_acq_rel);
      return pin.get();
    }
  }
  if (spare == nullptr) {
    DescriptorPins.emplace_back(new SCSI_DescriptorPin);
    spare = DescriptorPins.back().get();
  }
  spare->fd = fd;
  spare->state.store(kPinUser, std::memory_order_release);
  return spare;
}

void SCSI_CloseCachedDescriptor(int fd) {
  if (fd < 0) return;
  for (const std::unique_ptr<SCSI_DescriptorPin>& pin : DescriptorPins) {
    if (pin->fd != fd || (pin->state.load(std::memory_order_acquire) & kLetGo) != 0) continue;
    if (pin->state.fetch_or(kLetGo, std::memory_order_acq_rel) >= kPinUser) return;  // its last user closes it
    break;
  }
  kavo::os::Close(fd);
}

CBasicString<char> SCSI_CopyAdapterName(int n) {
  CPosixSingleLock hold(&HostAdaptersMapLock, 1);
  const SCSI_HostAdapterProperties* adapter = AdapterSlot(n);
  if (adapter == nullptr || adapter->AdapterName.IsEmpty()) return CBasicString<char>(pszUnknownHA);
  return adapter->AdapterName;
}

// A rebuild replaces every record, but not the device behind a key that
// stays: the new record takes over a lock its predecessor left held, so a
// request still exchanging on the old record's (held, shared) descriptor
// and one that looks the device up afresh take turns on one mutex rather
// than each holding a lock of its own.
void SCSI_RegisterDevice(const CBasicString<char>& deviceKey, SCSI_DeviceProperties* record) {
  DevicesMapHold hold;
  SCSI_DeviceProperties*& slot = DevicesMap[deviceKey];
  if (slot != record) SCSI_DeleteDeviceProperties(slot, deviceKey);
  slot = record;
  DeleteRetiredLocksNowFree();
  for (auto retired = RetiredDeviceLocks.begin(); retired != RetiredDeviceLocks.end(); ++retired) {
    if (UnicodeStringCmp<char>(retired->deviceKey.GetString(), deviceKey.GetString(), -1) != 0) continue;
    delete record->DeviceLock;  // new and never taken
    record->DeviceLock = retired->lock;
    RetiredDeviceLocks.erase(retired);
    return;
  }
}

bool SCSI_RegisterAdapter(int adapter, char const* name, int isEmulated) {
  CPosixSingleLock hold(&HostAdaptersMapLock, 1);
  SCSI_HostAdapterProperties*& slot = HostAdaptersMap[adapter];
  if (slot == nullptr) {
    slot = new SCSI_HostAdapterProperties;
    slot->AdapterName = name;
    slot->IsEmulated = isEmulated;
  }
  return slot->IsEmulated == 0;
}

int ASPI_GetNumControllers() { return ControllerCount; }

unsigned int ASPI_GetHCforController(int n) { return static_cast<unsigned int>(n) << 16; }

int IsIDEAdapter(int n) { return n < IdeAdapterCount ? 1 : 0; }

int IsRealScsiAdapter(int n) {
  CPosixSingleLock hold(&HostAdaptersMapLock, 1);
  const SCSI_HostAdapterProperties* adapter = AdapterSlot(n);
  return adapter != nullptr && adapter->IsEmulated == 0 ? 1 : 0;
}

char* SCSI_GetAdapterName(int n) {
  CPosixSingleLock hold(&HostAdaptersMapLock, 1);
  SCSI_HostAdapterProperties* adapter = AdapterSlot(n);
  if (adapter == nullptr || adapter->AdapterName.IsEmpty()) return pszUnknownHA;
  return const_cast<char*>(adapter->AdapterName.GetString());
}
