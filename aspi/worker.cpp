#include "aspi/worker.h"

#include "aspi/execute_internal.h"
#include "aspi/worker_internal.h"
#include "device/open.h"
#include "device/registry.h"
#include "device/transport.h"
#include "runtime/os.h"
#include "runtime/thread.h"

// Records live as long as the process, and so does the list that reaches
// them: it is never destroyed, so a worker or an open still running while
// the process exits never meets a freed list, and the records stay reachable.
std::vector<ASPI_DEVICE_INFO*>& AspiDeviceList = *new std::vector<ASPI_DEVICE_INFO*>;
CPosixMutex AspiDeviceListLock(0);

namespace {

const unsigned int kInfinite = 0xFFFFFFFFu;
const int kWorkerTimeout = 30000;  // hundredths of a second: 300 s

// The caller holds AspiDeviceListLock.
ASPI_DEVICE_INFO* FindRecord(int haId, int target, int lun) {
  for (ASPI_DEVICE_INFO* record : AspiDeviceList)
    if (record->HaId == haId && record->Target == target && record->Lun == lun) return record;
  return nullptr;
}

ASPI_DEVICE_INFO* FindRecordLocked(int haId, int target, int lun) {
  CPosixSingleLock hold(&AspiDeviceListLock, 1);
  return FindRecord(haId, target, lun);
}

// Takes the entry at the front of the queue; false when it is empty. The
// emptiness test is made under the lock, as producers append under it too.
bool TakeFront(ASPI_DEVICE_INFO* record, void** entry) {
  CPosixSingleLock hold(record->QueueLock, 1);
  if (record->Queue->empty()) return false;
  *entry = record->Queue->front();
  record->Queue->pop_front();
  return true;
}

}  // namespace

ASPI_DEVICE_INFO* ASPI_OpenDevice(SRB_ExecSCSICmd* srb) {
  const int haId = srb->SRB_HaId, target = srb->SRB_Target, lun = srb->SRB_Lun;
  ASPI_DEVICE_INFO* found = FindRecordLocked(haId, target, lun);
  if (found != nullptr) return found;

  // Opened outside the list lock: an open may wait for a rescan or a busy node.
  const unsigned int hostAndChannel = ASPI_GetHCforController(haId);
  const int fd = SCSI_OpenDevice(static_cast<int>(hostAndChannel >> 16), static_cast<int>(hostAndChannel & 0xFFFF),
                                 target, lun, 0, nullptr);
  if (fd == -1) return nullptr;
  SCSI_LinuxSetTimeout(fd, kWorkerTimeout);

  // Another thread may have created the record meanwhile: searched again
  // under the same hold as the append, so a device has one record, and the
  // loser closes its own descriptor.
  CPosixSingleLock hold(&AspiDeviceListLock, 1);
  found = FindRecord(haId, target, lun);
  if (found != nullptr) {
    kavo::os::Close(fd);
    return found;
  }
  ASPI_DEVICE_INFO* record = new ASPI_DEVICE_INFO{fd, haId, target, lun, new std::deque<void*>, new CPosixMutex(0)};
  AspiDeviceList.push_back(record);
  return record;
}

// A null entry is taken off and skipped, so it cannot stall the queue.
unsigned int ASPI_ThreadFunction(void* info) {
  ASPI_DEVICE_INFO* record = static_cast<ASPI_DEVICE_INFO*>(info);
  for (;;) {
    void* entry = nullptr;
    if (!TakeFront(record, &entry)) {
      CThread::YieldCPU();
      continue;
    }
    if (entry != nullptr) ASPI_ExecuteSRB(static_cast<SRB_ExecSCSICmd*>(entry));
  }
}
