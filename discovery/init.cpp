#include "discovery/init.h"

#include "aspi/srb.h"
#include "device/registry_internal.h"

// Discovery of drives is not built yet: the registry stays empty.
void SCSI_Init() {
  IdeAdapterCount = 0;
  ControllerCount = 0;
}

void SCSI_Done(void) {}
