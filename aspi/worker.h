// Per-device request workers, for applications that want a device's
// requests carried out on a thread of their own: a record per device with a
// queue of request blocks, and the loop that drains one record's queue.
// SendASPI32Command does not use them; the application starts the worker
// (CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0)) and queues
// its blocks itself.
#pragma once

#include <deque>

#include "aspi/srb.h"
#include "runtime/export.h"
#include "runtime/sync.h"

// One per device, created by ASPI_OpenDevice and never freed.
struct ASPI_DEVICE_INFO {
  int FileDesc;  // a descriptor of the device's node, open for the record's life
  int HaId;
  int Target;
  int Lun;
  // Pending SRB_ExecSCSICmd*, oldest first. Producers push at the back
  // holding QueueLock; a block stays valid until it has been posted.
  std::deque<void*>* Queue;
  CPosixMutex* QueueLock;
};

// The record of the device that srb's SRB_HaId, SRB_Target and SRB_Lun
// address, created on first use; null when the device cannot be opened.
KAVO_API ASPI_DEVICE_INFO* ASPI_OpenDevice(SRB_ExecSCSICmd* srb);

// Runs the requests queued on the ASPI_DEVICE_INFO, one at a time in queue
// order, and posts each on this thread. Never returns; an idle worker polls.
[[noreturn]] KAVO_API unsigned int ASPI_ThreadFunction(void* info);
