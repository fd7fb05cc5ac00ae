// The device registry: which ASPI host adapters exist, what they are called,
// which devices sit at which adapter, channel, target and LUN, and the
// descriptors of drives held exclusively. Discovery writes it; everything
// else reads it.
//
// ASPI host adapter numbers: IDE adapters take 0 .. IdeAdapterCount-1; Linux
// SCSI host h is adapter IdeAdapterCount + h. Devices are keyed by
// "h%02dc%02dt%02dd%02d" of (adapter, channel, target, LUN).
#pragma once

#include <map>

#include "runtime/export.h"
#include "runtime/string.h"
#include "runtime/sync.h"

struct SCSI_DeviceProperties {
  CBasicString<char> DevicePath;       // /dev/sgN or /dev/hdX: carries the commands
  CBasicString<char> BlockDevicePath;  // /dev/scdN or /dev/srN; empty when unknown
  CBasicString<char> HalUdi;           // HAL's identifier; empty without HAL
  CPosixMutex* DeviceLock;             // serialises one command exchange; owned
};

struct SCSI_HostAdapterProperties {
  CBasicString<char> AdapterName;  // the driver's name; may be empty
  int IsEmulated;                  // non-zero for an ATAPI drive behind SCSI emulation
};

// A descriptor of a drive held exclusively, shared by nested holds.
struct SCSI_RefCountedFileDesc {
  int nFileDesc;    // -1 once closed
  int nRefCount;    // holds sharing it
  bool bHalLocked;  // HAL accepted a lock for this hold
};

typedef std::map<CBasicString<char>, SCSI_DeviceProperties*> SCSI_DevicesMap;
typedef std::map<int, SCSI_HostAdapterProperties*> SCSI_HostAdaptersMap;
typedef std::map<CBasicString<char>, SCSI_RefCountedFileDesc*> SCSI_OpenedDevicesMap;

// The maps own the records they point to; a null value reads as no entry.
// DevicesMap is keyed by device key, OpenedDevicesMap by device path.
extern KAVO_API SCSI_DevicesMap DevicesMap;
extern KAVO_API SCSI_HostAdaptersMap HostAdaptersMap;
extern KAVO_API SCSI_OpenedDevicesMap OpenedDevicesMap;

// The name reported for an adapter without one. Read at each use, so an
// application may point it at another text.
extern KAVO_API char* pszUnknownHA;

KAVO_API int ASPI_GetNumControllers();
// n << 16: the host (n itself) in the high half, channel 0 in the low half.
KAVO_API unsigned int ASPI_GetHCforController(int n);
KAVO_API int IsIDEAdapter(int n);
KAVO_API int IsRealScsiAdapter(int n);
// Points into the registry: valid until the next rebuild, not to be freed.
KAVO_API char* SCSI_GetAdapterName(int n);
