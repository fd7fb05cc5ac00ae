// Opening registered devices, the descriptors of drives held exclusively,
// and the per-device lock that serialises command exchanges.
#pragma once

#include "runtime/export.h"

// Opens the device's DevicePath with flags chosen by its node kind, retrying
// while the node answers EBUSY. Generic nodes get their reserved buffer and
// command timeout set. bExclusive == 1 unmounts the drive's volumes first
// and opens with O_EXCL. pBlockFileDesc, when given, receives -1 or, for a
// generic node with a known block node, a descriptor of that block node.
// Returns a descriptor the caller owns, or -1.
KAVO_API int SCSI_OpenDevice(int nHost, int nChannel, int nTarget, int nLun, int bExclusive, int* pBlockFileDesc);

// The cached descriptor of a drive held exclusively, or -1. Owned by the
// cache: not to be closed.
KAVO_API int SCSI_GetDeviceFileDesc(int nHost, int nChannel, int nTarget, int nLun);

// Takes the device's own lock, polling so that the registry stays usable
// meanwhile. 1 when the lock is held, 0 when the device is not registered
// (nothing to lock: a device that vanished is not waited for).
KAVO_API int SCSI_LockDevice(int nHost, int nChannel, int nTarget, int nLun);

// Releases the device's lock once if the device is registered; 1.
KAVO_API int SCSI_UnlockDevice(int nHost, int nChannel, int nTarget, int nLun);
