// The hot-plug monitors: every five seconds a fresh snapshot of the chosen
// source is compared with the last one; on a change the registry is rebuilt
// once and the application's callbacks hear of each drive that went, then of
// each that came.
#include <unistd.h>

#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/hal.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"

// Statically initialised, unlike the rest of discovery's state, so that an
// application may register its callbacks before its first ASPI call.
pthread_mutex_t SnapshotMutex = PTHREAD_MUTEX_INITIALIZER;
SCSI_ProcScsiDeviceList ProcScsiDeviceList;
SCSI_SysBlockDeviceList SysBlockDeviceList;
SCSI_HalDeviceList HalDeviceList;

namespace {

typedef void (*DeviceChangeCallback)(unsigned int);

struct CallbackList {
  pthread_mutex_t mutex;
  std::vector<DeviceChangeCallback> callbacks;  // in registration order; never shrinks
};

CallbackList ArrivalCallbacks = {PTHREAD_MUTEX_INITIALIZER, {}};
CallbackList RemovalCallbacks = {PTHREAD_MUTEX_INITIALIZER, {}};

const int kPauseSeconds = 5;

bool StopRequested() { return MonitorStopRequest.load() != 0; }

void Append(CallbackList& list, DeviceChangeCallback callback) {
  if (callback == nullptr) return;
  pthread_mutex_lock(&list.mutex);
  list.callbacks.push_back(callback);
  pthread_mutex_unlock(&list.mutex);
}

// The callbacks are called from a copy taken under the list's mutex: an
// append on an application thread may move the vector meanwhile, and a
// callback that itself registers callbacks must not find the mutex held.
void CallEach(CallbackList& list, unsigned int address) {
  pthread_mutex_lock(&list.mutex);
  const std::vector<DeviceChangeCallback> callbacks = list.callbacks;
  pthread_mutex_unlock(&list.mutex);
  for (DeviceChangeCallback callback : callbacks) callback(address);
}

// One cycle's changes: the first one rebuilds the registry, and the
// callbacks are told only when the rebuild happened (it gives up when the
// monitor is asked to stop).
class ChangeAnnouncer {
 public:
  // The rebuild of the cycle's first change; true when the registry was rebuilt.
  bool Rescan() {
    if (!rescanned_) {
      rescanned_ = true;
      rebuilt_ = SCSI_Rescan();
    }
    return rebuilt_;
  }
  void Announce(CallbackList& list, unsigned int address) {
    if (Rescan()) CallEach(list, address);
  }

 private:
  bool rescanned_ = false;
  bool rebuilt_ = false;
};

unsigned int AddressOf(int host, int target, int lun) {
  return SCSI_PackDeviceAddress(IdeAdapterCount + host, target, lun);
}

// Five one-second sleeps, cut short by a stop request.
void Pause() {
  for (int second = 0; second < kPauseSeconds && !StopRequested(); ++second) kavo::os::SleepSeconds(1);
}

bool SameDrive(const SCSI_HalDeviceInfo& a, const SCSI_HalDeviceInfo& b) {
  return UnicodeStringCmp<char>(a.Udi.GetString(), b.Udi.GetString(), -1) == 0 && a.HostNumber == b.HostNumber &&
         a.TargetId == b.TargetId;
}

bool SameDrive(const SCSI_SysBlockDeviceInfo& a, const SCSI_SysBlockDeviceInfo& b) {
  return UnicodeStringCmp<char>(a.VendorName.GetString(), b.VendorName.GetString(), -1) == 0 &&
         UnicodeStringCmp<char>(a.ModelName.GetString(), b.ModelName.GetString(), -1) == 0 &&
         a.HostNumber == b.HostNumber && a.TargetId == b.TargetId;
}

template <typename Record>
bool Contains(const std::vector<Record*>& list, const Record& record) {
  for (const Record* other : list)
    if (other != nullptr && SameDrive(*other, record)) return true;
  return false;
}

// Each record of from that to lacks is announced to callbacks.
template <typename Record>
void AnnounceMissing(const std::vector<Record*>& from, const std::vector<Record*>& to, CallbackList& callbacks,
                     ChangeAnnouncer& announcer) {
  for (const Record* record : from)
    // Packed after the rebuild, with the adapter numbering it handed out.
    if (record != nullptr && !Contains(to, *record) && announcer.Rescan())
      announcer.Announce(callbacks, AddressOf(record->HostNumber, record->TargetId, 0));
}

// The HAL and /sys/block monitors: the fresh snapshot replaces the current.
template <typename Record>
void* RunReplacingMonitor(std::vector<Record*>& current, void (*scan)(std::vector<Record*>&),
                          void (*clear)(std::vector<Record*>&)) {
  while (!StopRequested()) {
    pthread_mutex_lock(&SnapshotMutex);
    std::vector<Record*> fresh;
    scan(fresh);
    ChangeAnnouncer announcer;
    AnnounceMissing(current, fresh, RemovalCallbacks, announcer);
    AnnounceMissing(fresh, current, ArrivalCallbacks, announcer);
    clear(current);
    current.swap(fresh);
    pthread_mutex_unlock(&SnapshotMutex);
    Pause();
  }
  pthread_mutex_lock(&SnapshotMutex);
  clear(current);
  pthread_mutex_unlock(&SnapshotMutex);
  return nullptr;
}

unsigned int AddressOf(const CLinuxProcScsiDevice& device) {
  return AddressOf(device.m_nHost, device.m_nId, device.m_nLun);
}

// Marks every current entry that the fresh listing still holds, and the
// fresh entry it matched (one fresh entry may match several current ones).
void MarkSurvivors(SCSI_ProcScsiDeviceList& current, SCSI_ProcScsiDeviceList& fresh) {
  for (CLinuxProcScsiDevice* device : current) device->UnMark();
  for (CLinuxProcScsiDevice* device : current)
    for (CLinuxProcScsiDevice* candidate : fresh)
      if (*candidate == *device) {
        device->Mark();
        candidate->Mark();
        break;
      }
}

// The /proc/scsi/scsi monitor: departed entries leave the current list,
// arrivals are appended to it, survivors keep their place.
void RunProcScsiCycle() {
  SCSI_ProcScsiDeviceList fresh;
  SCSI_ListProcScsiDevices(fresh);
  MarkSurvivors(ProcScsiDeviceList, fresh);
  ChangeAnnouncer announcer;
  for (size_t i = 0; i < ProcScsiDeviceList.size();) {
    CLinuxProcScsiDevice* device = ProcScsiDeviceList[i];
    if (device->IsMarked()) {
      ++i;
      continue;
    }
    announcer.Announce(RemovalCallbacks, AddressOf(*device));
    delete device;
    ProcScsiDeviceList.erase(ProcScsiDeviceList.begin() + i);
  }
  for (CLinuxProcScsiDevice* device : fresh) {
    if (device->IsMarked()) {
      delete device;
      continue;
    }
    // Packed before the rebuild, so with the adapter numbering the drive
    // was seen under.
    const unsigned int address = AddressOf(*device);
    announcer.Announce(ArrivalCallbacks, address);
    ProcScsiDeviceList.push_back(device);
  }
}

}  // namespace

unsigned int SCSI_PackDeviceAddress(int adapter, int target, int lun) {
  return ((adapter & 0xFF) << 16) | ((target & 0xFF) << 8) | (lun & 0xFF);
}

void ASPI_putCallbacks(ASPI_Callbacks* callbacks) {
  if (callbacks == nullptr) return;
  Append(ArrivalCallbacks, callbacks->pfnArrival);
  Append(RemovalCallbacks, callbacks->pfnRemoval);
}

void* SCSI_HalMonitor(void*) { return RunReplacingMonitor(HalDeviceList, SCSI_ScanHalDevices, SCSI_ClearHalDeviceList); }

void* SCSI_SysBlockMonitor(void*) {
  return RunReplacingMonitor(SysBlockDeviceList, SCSI_ScanSysBlock, SCSI_ClearSysBlockDeviceList);
}

void* SCSI_ProcScsiMonitor(void*) {
  while (!StopRequested()) {
    pthread_mutex_lock(&SnapshotMutex);
    RunProcScsiCycle();
    pthread_mutex_unlock(&SnapshotMutex);
    Pause();
  }
  pthread_mutex_lock(&SnapshotMutex);
  SCSI_ClearProcScsiDeviceList(ProcScsiDeviceList);
  pthread_mutex_unlock(&SnapshotMutex);
  return nullptr;
}

void SCSI_DropSnapshots() {
  pthread_mutex_lock(&SnapshotMutex);
  SCSI_ClearHalDeviceList(HalDeviceList);
  SCSI_ClearSysBlockDeviceList(SysBlockDeviceList);
  SCSI_ClearProcScsiDeviceList(ProcScsiDeviceList);
  pthread_mutex_unlock(&SnapshotMutex);
}

SCSI_MonitorFunction SCSI_TakeFirstSnapshot() {
  SCSI_MonitorFunction monitor = nullptr;
  pthread_mutex_lock(&SnapshotMutex);
  if (libhal_support_is_available()) {
    SCSI_ScanHalDevices(HalDeviceList);
    monitor = SCSI_HalMonitor;
  } else if (kavo::os::Access("/sys/block", R_OK | X_OK) == 0) {
    SCSI_ScanSysBlock(SysBlockDeviceList);
    monitor = SCSI_SysBlockMonitor;
  } else if (kavo::os::Access("/proc/scsi/scsi", R_OK) == 0) {
    SCSI_ListProcScsiDevices(ProcScsiDeviceList);
    monitor = SCSI_ProcScsiMonitor;
  }
  pthread_mutex_unlock(&SnapshotMutex);
  return monitor;
}
