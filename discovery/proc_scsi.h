// One device of the kernel's /proc/scsi/scsi list, as the hot-plug monitor
// of systems without HAL and /sys/block compares them.
#pragma once

#include <string>

#include "runtime/export.h"

class KAVO_API CLinuxProcScsiDevice {
 public:
  CLinuxProcScsiDevice(int host, int channel, int id, int lun, const char* vendor, const char* model,
                       const char* revision, const char* type, int ansiRevision);
  virtual ~CLinuxProcScsiDevice();

  void Mark();
  void UnMark();
  bool IsMarked();
  // Same address and same vendor, model, revision and type texts (trailing
  // spaces count); the ANSI revision and the mark are not compared.
  bool operator==(const CLinuxProcScsiDevice& other);
  // Kept for the interface; does nothing.
  void GetDeviceInfo();

  int m_nHost;  // Linux SCSI host
  int m_nChannel;
  int m_nId;
  int m_nLun;
  std::string m_strVendor;    // 8 characters, as the kernel pads them
  std::string m_strModel;     // 16
  std::string m_strRevision;  // 4
  std::string m_strType;      // 32
  int m_nAnsiRevision;
  bool m_bMarked;
};
