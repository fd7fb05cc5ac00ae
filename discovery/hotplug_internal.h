// The hot-plug machinery: the snapshots of the three sources, the monitor
// threads that compare them, and the application's change callbacks.
#pragma once

#include <pthread.h>

#include <vector>

#include "discovery/proc_scsi.h"
#include "runtime/string.h"

// One optical drive as /sys/block lists it. Same drive: vendor, model, host
// and target equal.
struct SCSI_SysBlockDeviceInfo {
  CBasicString<char> VendorName;  // first line of the vendor file, padding kept
  CBasicString<char> ModelName;
  int HostNumber;  // Linux SCSI host
  int TargetId;
};

// One optical drive as HAL lists it. Same drive: UDI, host and target equal.
struct SCSI_HalDeviceInfo {
  CBasicString<char> Udi;
  int HostNumber;  // Linux SCSI host
  int TargetId;
};

typedef std::vector<CLinuxProcScsiDevice*> SCSI_ProcScsiDeviceList;
typedef std::vector<SCSI_SysBlockDeviceInfo*> SCSI_SysBlockDeviceList;
typedef std::vector<SCSI_HalDeviceInfo*> SCSI_HalDeviceList;

// The current snapshots, guarded by SnapshotMutex; each list owns its
// records. Only the one chosen source's list is ever filled.
extern pthread_mutex_t SnapshotMutex;
extern SCSI_ProcScsiDeviceList ProcScsiDeviceList;
extern SCSI_SysBlockDeviceList SysBlockDeviceList;
extern SCSI_HalDeviceList HalDeviceList;

// Snapshots of reachable drives (SCSI_IsDevicePresent) in the source's
// order. Each empties the list first. The caller holds SnapshotMutex.
void SCSI_ListProcScsiDevices(SCSI_ProcScsiDeviceList& list);
void SCSI_ScanSysBlock(SCSI_SysBlockDeviceList& list);
void SCSI_ScanHalDevices(SCSI_HalDeviceList& list);
void SCSI_ClearProcScsiDeviceList(SCSI_ProcScsiDeviceList& list);
void SCSI_ClearSysBlockDeviceList(SCSI_SysBlockDeviceList& list);
void SCSI_ClearHalDeviceList(SCSI_HalDeviceList& list);

// Destroys the records of every snapshot list, under SnapshotMutex: the
// first snapshot of a monitor that could not be started.
void SCSI_DropSnapshots();

// /proc/scsi/scsi's records, parsed from the file's text; presence is not
// checked. Ends at the first record cut short.
void SCSI_ParseProcScsiText(const std::string& text, SCSI_ProcScsiDeviceList& list);
// The first line of a sysfs attribute without its newline.
CBasicString<char> SCSI_FirstLine(const std::string& text);

// The callback argument: adapter (modulo 256) in bits 16-23, target in 8-15,
// LUN in 0-7.
unsigned int SCSI_PackDeviceAddress(int adapter, int target, int lun);

typedef void* (*SCSI_MonitorFunction)(void*);
void* SCSI_HalMonitor(void*);
void* SCSI_SysBlockMonitor(void*);
void* SCSI_ProcScsiMonitor(void*);

// Takes the first snapshot of the first usable source (HAL, /sys/block,
// /proc/scsi/scsi) and returns its monitor, or null when none is usable.
SCSI_MonitorFunction SCSI_TakeFirstSnapshot();
