#include "device/registry.h"

#include <stdio.h>

#include "device/registry_internal.h"
#include "runtime/os.h"

SCSI_DevicesMap DevicesMap;
SCSI_HostAdaptersMap HostAdaptersMap;
SCSI_OpenedDevicesMap OpenedDevicesMap;

namespace {
char kUnknownAdapterName[] = "unknown";
}

char* pszUnknownHA = kUnknownAdapterName;

int IdeAdapterCount = 0;
int ControllerCount = 0;

CPosixMutex RescanLock(0);
CPosixMutex DevicesMapLock(0);
CPosixMutex HostAdaptersMapLock(0);
CPosixMutex OpenedDevicesMapLock(0);

namespace {

// The adapter's record, or null; like the map's own indexing, a number
// never seen before gains an empty slot. The caller holds HostAdaptersMapLock.
SCSI_HostAdapterProperties* AdapterSlot(int n) { return HostAdaptersMap[n]; }
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

// "h%02dc%02dt%02dd%02d". Every request looks its device up several times,
// so the key is put together without a printf pass.
CBasicString<char> SCSI_MakeDeviceKey(int host, int channel, int target, int lun) {
  char text[64];
  char* out = text;
  *out++ = 'h';
  out = PutTwoDigitField(out, host);
  *out++ = 'c';
  out = PutTwoDigitField(out, channel);
  *out++ = 't';
  out = PutTwoDigitField(out, target);
  *out++ = 'd';
  out = PutTwoDigitField(out, lun);
  return CBasicString<char>(text, static_cast<int>(out - text));
}

SCSI_DeviceProperties* SCSI_GetDeviceProperties(int host, int channel, int target, int lun) {
  SCSI_DevicesMap::const_iterator found = DevicesMap.find(SCSI_MakeDeviceKey(host, channel, target, lun));
  return found == DevicesMap.end() ? nullptr : found->second;
}

SCSI_DeviceProperties* SCSI_NewDeviceProperties(char const* devicePath) {
  SCSI_DeviceProperties* record = new SCSI_DeviceProperties;
  record->DevicePath = devicePath;
  record->DeviceLock = new CPosixMutex(0);
  return record;
}

void SCSI_DeleteDeviceProperties(SCSI_DeviceProperties* record) {
  if (record == nullptr) return;
  delete record->DeviceLock;
  delete record;
}

void SCSI_RegisterDevice(const CBasicString<char>& deviceKey, SCSI_DeviceProperties* record) {
  DevicesMapHold hold;
  SCSI_DeviceProperties*& slot = DevicesMap[deviceKey];
  if (slot != record) SCSI_DeleteDeviceProperties(slot);
  slot = record;
}

void SCSI_RegisterAdapter(int adapter, char const* name, int isEmulated) {
  CPosixSingleLock hold(&HostAdaptersMapLock, 1);
  SCSI_HostAdapterProperties*& slot = HostAdaptersMap[adapter];
  if (slot != nullptr) return;
  slot = new SCSI_HostAdapterProperties;
  slot->AdapterName = name;
  slot->IsEmulated = isEmulated;
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
