// What kind of host adapter an ASPI number stands for, and the Linux SCSI
// host behind it. The SRB interface has no word for either, so this asks
// the registry queries that the library exports to C++ applications.
#include "device/registry.h"
#include "tools/aspitool_commands.h"

extern "C" const char* aspitool_adapter_kind(int adapter) {
  if (IsIDEAdapter(adapter)) return "IDE adapter";
  if (IsRealScsiAdapter(adapter)) return "real SCSI host";
  // An adapter without a record reads with the unknown-adapter name itself.
  if (SCSI_GetAdapterName(adapter) != pszUnknownHA) return "emulated SCSI host";
  return "no adapter at this number";
}

// The IDE adapters take the ASPI numbers below the SCSI hosts'.
extern "C" int aspitool_linux_host(int adapter) {
  int ideAdapters = 0;
  while (IsIDEAdapter(ideAdapters)) ++ideAdapters;
  return adapter < ideAdapters ? -1 : adapter - ideAdapters;
}
