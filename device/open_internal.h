// The descriptor of one request, in one registry lookup.
#pragma once

#include "device/registry_internal.h"

struct SCSI_RequestDescriptor {
  int fd;                   // -1 when none could be had
  SCSI_DescriptorPin* pin;  // fd is a held drive's cached one: unpin, do not close; else null
  SCSI_NodeKind kind;  // of the registered DevicePath: /dev/sgN, /dev/hdX, other
  bool registered;     // false: no such device
  // The device's DeviceLock when it was free at the lookup, now held by the
  // calling thread; null when it was busy (the request then polls for it).
  // Given back with SCSI_ReleaseRequestHolds.
  CPosixMutex* deviceLock;
  bool onRealScsiHost;  // the found record's SCSI_IsOnRealScsiHost
};

// The cached descriptor of a drive held exclusively, pinned (the caller
// gives it back with SCSI_ReleaseRequestHolds), else a descriptor opened
// for this request (not exclusive), which the caller closes.
// An IDE node is not opened for a command its packet cannot carry
// (ideCommandFits false): the request is refused without touching the drive.
// The device's lock is tried while the record is at hand, so that a request
// looks its device up once.
SCSI_RequestDescriptor SCSI_OpenForRequest(int host, int channel, int target, int lun, bool ideCommandFits);
