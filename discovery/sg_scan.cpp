// The SCSI host pass: every /dev/sgN that answers becomes a device of ASPI
// host adapter IdeAdapterCount + host, and its host an adapter named after
// its driver.
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "device/registry_internal.h"
#include "device/transport.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "runtime/os.h"

namespace {

const int kAdapterNameSize = 64;

// Before sysfs: the last /proc/scsi driver directory that lists the host
// (pre-sysfs kernels list a driver's hosts by number in its directory).
void FindDriverNameInProcScsi(int host, char* name) {
  std::vector<std::string> drivers;
  if (!kavo::os::ListDirectory("/proc/scsi", drivers)) return;
  for (const std::string& driver : drivers) {
    if (driver.empty() || driver[0] == '.') continue;
    std::string directory = "/proc/scsi/" + driver;
    if (SCSI_isadapter(host, &directory[0]) != 0) snprintf(name, kAdapterNameSize, "%s", driver.c_str());
  }
}

// The first line of the host's proc_name, as fgets reads it into the name
// buffer. Only a trailing newline is dropped: a name that filled the buffer
// or a file without one keeps all its characters.
void FindDriverNameInSysfs(int host, char* name) {
  char path[kDeviceNodePathSize];
  snprintf(path, sizeof path, "/sys/class/scsi_host/host%d/proc_name", host);
  std::string text;
  if (!kavo::os::ReadTextFile(path, text)) return;
  size_t length = text.find('\n');
  length = length == std::string::npos ? text.size() : length + 1;
  if (length > kAdapterNameSize - 1) length = kAdapterNameSize - 1;
  memcpy(name, text.data(), length);
  name[length] = 0;
  if (length > 0 && name[length - 1] == '\n') name[length - 1] = 0;
}

int ReportsEmulatedHost(int fd) {
  int emulated = 0;
  kavo::os::Ioctl(fd, SG_EMULATED_HOST, &emulated);
  return emulated;
}

void RegisterNode(int fd, char const* path, const SCSI_NodeAddress& address) {
  char name[kAdapterNameSize];
  memset(name, 0, sizeof name);
  if (IsKernel26 == 1) FindDriverNameInSysfs(address.host, name);
  else FindDriverNameInProcScsi(address.host, name);
  const int emulated = ReportsEmulatedHost(fd);
  const int adapter = IdeAdapterCount + address.host;
  // The first node of a host decides its adapter's name and flag; its
  // devices keep that flag (see SCSI_IsOnRealScsiHost).
  const bool realHost = SCSI_RegisterAdapter(adapter, name, emulated);
  if (SCSI_IsIdeScsiHost(address.host)) return;
  SCSI_RegisterDevice(SCSI_MakeDeviceKey(adapter, address.channel, address.target, address.lun),
                      SCSI_NewDeviceProperties(path, realHost));
  if (ControllerCount < adapter + 1) ControllerCount = adapter + 1;
}

}  // namespace

void SCSI_ScanSgDevices() {
  SCSI_WalkDeviceNodes(SCSI_MakeSgDeviceName, O_RDWR | O_NONBLOCK,
                       [](int fd, char const* path, const SCSI_NodeAddress& address) {
                         RegisterNode(fd, path, address);
                         return false;
                       });
}
