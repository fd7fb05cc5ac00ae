// The /sys/block snapshot: the optical drives sysfs lists (srN, scdN) that
// answer their SCSI address and are reachable.
#include <fcntl.h>
#include <scsi/scsi.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "discovery/hotplug_internal.h"
#include "discovery/init_internal.h"
#include "discovery/scan_internal.h"
#include "runtime/os.h"

namespace {

// The drive number of an "srN" or "scdN" entry, or -1 for any other name.
int DriveNumberOf(const std::string& name) {
  const char* format = name.compare(0, 2, "sr") == 0 ? "sr%d" : name.compare(0, 3, "scd") == 0 ? "scd%d" : nullptr;
  int number = -1;
  if (format == nullptr || sscanf(name.c_str(), format, &number) != 1) return -1;
  return number;
}

// /dev/scdN first, /dev/srN when that does not open.
int OpenBlockNode(int number) {
  char path[kDeviceNodePathSize];
  snprintf(path, sizeof path, "/dev/scd%d", number);
  int fd = kavo::os::Open(path, O_RDONLY | O_NONBLOCK);
  if (fd >= 0) return fd;
  snprintf(path, sizeof path, "/dev/sr%d", number);
  return kavo::os::Open(path, O_RDONLY | O_NONBLOCK);
}

bool ReadAddress(int fd, SCSI_NodeAddress* address) {
  int bus = 0;
  int idLun[2] = {0, 0};
  if (kavo::os::Ioctl(fd, SCSI_IOCTL_GET_BUS_NUMBER, &bus) != 0 ||
      kavo::os::Ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun) != 0)
    return false;
  address->host = bus;
  address->target = idLun[0] & 0xFF;
  address->lun = (idLun[0] >> 8) & 0xFF;
  address->channel = (idLun[0] >> 16) & 0xFF;
  return true;
}

// The entry's record, or null when any piece of it is missing.
SCSI_SysBlockDeviceInfo* ReadEntry(const std::string& name) {
  const int number = DriveNumberOf(name);
  if (number == -1) return nullptr;
  const std::string device = "/sys/block/" + name + "/device/";
  std::string vendor, model;
  const int fd = OpenBlockNode(number);
  const bool filesRead = kavo::os::ReadTextFile((device + "vendor").c_str(), vendor) &&
                         kavo::os::ReadTextFile((device + "model").c_str(), model);
  SCSI_NodeAddress address;
  const bool answered = fd >= 0 && filesRead && ReadAddress(fd, &address);
  if (fd >= 0) kavo::os::Close(fd);
  if (!answered || !SCSI_IsDevicePresent(address.host, address.channel, address.target, address.lun))
    return nullptr;
  return new SCSI_SysBlockDeviceInfo{SCSI_FirstLine(vendor), SCSI_FirstLine(model), address.host, address.target};
}

}  // namespace

CBasicString<char> SCSI_FirstLine(const std::string& text) { return text.substr(0, text.find('\n')).c_str(); }

void SCSI_ScanSysBlock(SCSI_SysBlockDeviceList& list) {
  SCSI_ClearSysBlockDeviceList(list);
  std::vector<std::string> names;
  if (!kavo::os::ListDirectory("/sys/block", names)) return;
  for (const std::string& name : names)
    if (SCSI_SysBlockDeviceInfo* record = ReadEntry(name)) list.push_back(record);
}

void SCSI_ClearSysBlockDeviceList(SCSI_SysBlockDeviceList& list) {
  for (SCSI_SysBlockDeviceInfo*& record : list) {
    delete record;
    record = nullptr;
  }
  list.clear();
}
