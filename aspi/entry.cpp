// The entry points applications call: request dispatch, host adapter
// inquiry, get-device-type, and the one-time initialisation.
#include <string.h>

#include <atomic>

#include "aspi/execute_internal.h"
#include "aspi/srb.h"
#include "device/registry_internal.h"
#include "discovery/init.h"
#include "runtime/sync.h"

namespace {

// AspiInitDone is set before SCSI_Init runs. The registry-ready flag and the
// recursive InitLock make a second thread that arrives during the build wait
// for it, while a call from inside the build on the same thread passes.
int AspiInitDone = 0;
std::atomic<bool> RegistryReady(false);
CPosixMutex InitLock(0);

const unsigned char kInquiryLength = 200;
const unsigned char kDeviceTypeMask = 0x1F;

// strncpy's contract: zero-filled when shorter, unterminated when it fills.
void CopyPadded(unsigned char* field, size_t width, const char* text) {
  size_t length = strnlen(text, width);
  memcpy(field, text, length);
  memset(field + length, 0, width - length);
}

unsigned int AnswerHostAdapterInquiry(SRB_HAInquiry* srb) {
  memset(srb->HA_ManagerId, 0, sizeof srb->HA_ManagerId);
  memcpy(srb->HA_ManagerId, "Linux ASPI", 10);
  srb->SRB_Status = SS_COMP;
  srb->HA_Count = 2;
  srb->HA_SCSI_ID = 7;
  // A copy: a rebuild may free the record's name as soon as the lock is gone.
  CopyPadded(srb->HA_Identifier, sizeof srb->HA_Identifier, SCSI_CopyAdapterName(srb->SRB_HaId).GetString());
  memset(srb->HA_Unique, 0, sizeof srb->HA_Unique);
  srb->HA_Unique[3] = 8;  // targets per adapter
  srb->HA_Unique[6] = 2;  // 0x20000: the largest transfer, the generic driver's reserved size
  return SS_COMP;
}

unsigned int AnswerGetDeviceType(SRB_GDEVBlock* srb) {
  unsigned char inquiryData[kInquiryLength];
  memset(inquiryData, 0, sizeof inquiryData);  // a failed inquiry reads as type 0
  SRB_ExecSCSICmd inquiry;
  memset(&inquiry, 0, sizeof inquiry);
  memcpy(&inquiry, srb, sizeof *srb);
  inquiry.SRB_Cmd = SC_EXEC_SCSI_CMD;
  inquiry.SRB_Flags |= SRB_DIR_IN;
  inquiry.SRB_BufLen = kInquiryLength;
  inquiry.SRB_BufPointer = inquiryData;
  inquiry.SRB_SenseLen = 0;
  inquiry.SRB_CDBLen = 6;
  const unsigned char cdb[6] = {0x12, 0x00, 0x00, 0x00, kInquiryLength, 0x00};
  memcpy(inquiry.CDBByte, cdb, sizeof cdb);
  inquiry.SRB_PostProc = nullptr;  // the internal request is posted to nobody
  ASPI_ExecuteSRB(&inquiry);
  srb->SRB_Status = inquiry.SRB_Status;
  srb->SRB_DeviceType = inquiryData[0] & kDeviceTypeMask;
  return inquiry.SRB_Status;
}

// The first call's work, kept out of line so that every later call's check
// is a load and a branch inside its caller.
__attribute__((noinline)) void InitialiseOnce() {
  CPosixSingleLock hold(&InitLock, 1);
  if (AspiInitDone != 0) return;
  AspiInitDone = 1;
  SCSI_Init();
  RegistryReady.store(true, std::memory_order_release);
}

}  // namespace

void winaspi32_checkinit() {
  if (!RegistryReady.load(std::memory_order_acquire)) InitialiseOnce();
}

// Nothing throws across the C entry points: an allocation that fails while
// the registry is built leaves what was found so far.
unsigned int GetASPI32SupportInfo(void) {
  try {
    winaspi32_checkinit();
  } catch (...) {
  }
  return static_cast<unsigned int>(ASPI_GetNumControllers()) | 0x100u;
}

namespace {

unsigned int Dispatch(void* srb) {
  winaspi32_checkinit();
  if (srb == nullptr) return SS_INVALID_SRB;
  unsigned char* block = static_cast<unsigned char*>(srb);
  switch (block[0]) {
    case SC_HA_INQUIRY:
      return AnswerHostAdapterInquiry(static_cast<SRB_HAInquiry*>(srb));
    case SC_GET_DEV_TYPE:
      return AnswerGetDeviceType(static_cast<SRB_GDEVBlock*>(srb));
    case SC_EXEC_SCSI_CMD:
      return ASPI_ExecuteSRB(static_cast<SRB_ExecSCSICmd*>(srb));
    default:
      return SS_INVALID_SRB;
  }
}

}  // namespace

// An execute request posts its own failure (ASPI_ExecuteSRB catches); what
// else fails to allocate ends here as SS_ERR.
unsigned int SendASPI32Command(void* srb) {
  try {
    return Dispatch(srb);
  } catch (...) {
    return SS_ERR;
  }
}

unsigned int GetASPI32DLLVersion() {
  winaspi32_checkinit();
  return 1;
}

unsigned int GetASPI32Buffer(void*) {
  winaspi32_checkinit();
  return 1;
}

unsigned int FreeASPI32Buffer(void*) {
  winaspi32_checkinit();
  return 1;
}

unsigned int TranslateASPI32Address(unsigned int*, unsigned int*) {
  winaspi32_checkinit();
  return 1;
}
