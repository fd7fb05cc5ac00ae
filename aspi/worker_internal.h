// The process-wide list of worker records, in creation order. Records are
// appended under AspiDeviceListLock and never removed.
#pragma once

#include <vector>

#include "aspi/worker.h"
#include "runtime/sync.h"

extern std::vector<ASPI_DEVICE_INFO*>& AspiDeviceList;
extern CPosixMutex AspiDeviceListLock;
