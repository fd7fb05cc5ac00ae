// The HAL binding: HAL and D-Bus are loaded at run time from libhal.so.1
// when present, never linked. Every function reports failure (false, null
// or nothing) when HAL support is not available.
#pragma once

#include "runtime/export.h"

KAVO_API bool libhal_support_init();
KAVO_API bool libhal_support_done();
KAVO_API bool libhal_support_is_available();
// HAL's "block.device" of udi; release with libhal_support_free_string.
KAVO_API char* libhal_support_get_block_device(char const* udi);
// The UDIs of every "storage.cdrom" device; release with
// libhal_support_free_string_array. pCount may be null.
KAVO_API char** libhal_support_get_all_cdrom_devices(unsigned int* pCount);
KAVO_API void libhal_support_free_string(char* s);
KAVO_API void libhal_support_free_string_array(char** array);
KAVO_API bool libhal_support_lock_device(char const* udi);
KAVO_API bool libhal_support_unlock_device(char const* udi);
