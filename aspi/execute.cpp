#include "aspi/execute_internal.h"

#include "device/registry_internal.h"
#include "runtime/sync.h"

void ASPI_PostSRB(SRB_ExecSCSICmd* srb, unsigned char status) {
  if (status == SS_PENDING) return;
  srb->SRB_Status = status;
  if (srb->SRB_PostProc == nullptr) return;
  if (srb->SRB_Flags & SRB_POSTING) {
    reinterpret_cast<ASPI_PostProc>(srb->SRB_PostProc)(srb);
  } else if (srb->SRB_Flags & SRB_EVENT_NOTIFY) {
    static_cast<CPosixEvent*>(srb->SRB_PostProc)->SetEvent();
  }
}

// The command path arrives with the SG transport and the device open; until
// then every device is unknown to it.
unsigned int ASPI_ExecuteSRB(SRB_ExecSCSICmd* srb) {
  ASPI_PostSRB(srb, SS_NO_DEVICE);
  return SS_PENDING;
}
