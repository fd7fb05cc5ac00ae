// The HAL snapshot: HAL's optical drives whose block node answers its SCSI
// address and that are reachable.
#include <fcntl.h>
#include <scsi/scsi.h>

#include "discovery/hal.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"

namespace {

// The record for udi, or null when its block node does not answer or the
// drive is not reachable.
SCSI_HalDeviceInfo* RecordFor(char const* udi, char const* blockDevice) {
  const int fd = kavo::os::Open(blockDevice, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return nullptr;
  SCSI_HalDeviceInfo* record = nullptr;
  int host = 0;
  int idLun[2] = {0, 0};
  if (kavo::os::Ioctl(fd, SCSI_IOCTL_GET_BUS_NUMBER, &host) == 0 &&
      kavo::os::Ioctl(fd, SCSI_IOCTL_GET_IDLUN, idLun) == 0) {
    const int target = idLun[0] & 0xFF, lun = (idLun[0] >> 8) & 0xFF, channel = (idLun[0] >> 16) & 0xFF;
    if (SCSI_IsDevicePresent(host, channel, target, lun)) record = new SCSI_HalDeviceInfo{udi, host, target};
  }
  kavo::os::Close(fd);
  return record;
}

}  // namespace

void SCSI_ScanHalDevices(SCSI_HalDeviceList& list) {
  SCSI_ClearHalDeviceList(list);
  unsigned int count = 0;
  char** udis = libhal_support_get_all_cdrom_devices(&count);
  for (unsigned int i = 0; udis != nullptr && i < count; ++i) {
    if (udis[i] == nullptr) continue;
    char* blockDevice = libhal_support_get_block_device(udis[i]);
    if (blockDevice == nullptr) continue;
    if (SCSI_HalDeviceInfo* record = RecordFor(udis[i], blockDevice)) list.push_back(record);
    libhal_support_free_string(blockDevice);
  }
  if (udis != nullptr) libhal_support_free_string_array(udis);
}

void SCSI_ClearHalDeviceList(SCSI_HalDeviceList& list) {
  for (SCSI_HalDeviceInfo*& record : list) {
    delete record;
    record = nullptr;
  }
  list.clear();
}
