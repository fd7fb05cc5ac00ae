#include "discovery/hal.h"

// HAL support is not loaded yet: every call reports it unavailable.
bool libhal_support_init() { return false; }
bool libhal_support_done() { return true; }
bool libhal_support_is_available() { return false; }
char* libhal_support_get_block_device(char const*) { return nullptr; }
char** libhal_support_get_all_cdrom_devices(unsigned int* pCount) {
  if (pCount != nullptr) *pCount = 0;
  return nullptr;
}
void libhal_support_free_string(char*) {}
void libhal_support_free_string_array(char**) {}
bool libhal_support_lock_device(char const*) { return false; }
bool libhal_support_unlock_device(char const*) { return false; }
