// Start-up, shut-down and rebuilding of the device registry.
#pragma once

#include "runtime/export.h"

// Detects the kernel, starts HAL, builds the registry and starts the
// hot-plug monitor. Run once, by the first ASPI entry point.
KAVO_API void SCSI_Init();
