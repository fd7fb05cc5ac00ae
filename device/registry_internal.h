// Registry state and helpers shared inside the library.
#pragma once

#include "device/registry.h"

// Numbering state, written only while a registry build runs.
extern int IdeAdapterCount;
extern int ControllerCount;

// Lock order: RescanLock, DevicesMapLock, OpenedDevicesMapLock. The
// HostAdaptersMapLock is never held together with DevicesMapLock.
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

// The record of a device, or null. Never inserts. The caller holds
// DevicesMapLock for as long as it uses the result.
SCSI_DeviceProperties* SCSI_GetDeviceProperties(int host, int channel, int target, int lun);

// A new device record with its own unowned DeviceLock, and its disposal.
SCSI_DeviceProperties* SCSI_NewDeviceProperties(char const* devicePath);
void SCSI_DeleteDeviceProperties(SCSI_DeviceProperties* record);

// Stores a record under key, deleting one stored there before. Takes
// DevicesMapLock itself.
void SCSI_RegisterDevice(const CBasicString<char>& deviceKey, SCSI_DeviceProperties* record);

// Stores an adapter record under adapter unless a record is there already.
// Takes HostAdaptersMapLock itself.
void SCSI_RegisterAdapter(int adapter, char const* name, int isEmulated);
