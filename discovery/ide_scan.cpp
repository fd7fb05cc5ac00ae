// The IDE pass: optical drives on the legacy IDE driver, found under
// /proc/ide and reached through their /dev/hdX nodes. Each interface with a
// usable drive becomes one ASPI host adapter, numbered densely from 0.
#include <fcntl.h>
#include <limits.h>
#include <linux/cdrom.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "device/registry_internal.h"
#include "discovery/scan_internal.h"
#include "runtime/os.h"

namespace {

const int kIdeInterfaces = 32;
const int kInterfacePathSize = 31;
const int kDrivePathSize = 254;
const size_t kDriverWordLimit = 12;

// The first word of the driver file, at most 12 characters, as "%12s"
// reads it; empty when there is none.
std::string FirstWord(const std::string& text) {
  const char* blanks = " \t\n\v\f\r";
  size_t start = text.find_first_not_of(blanks);
  if (start == std::string::npos) return std::string();
  size_t end = text.find_first_of(blanks, start);
  if (end == std::string::npos) end = text.size();
  return text.substr(start, std::min(end - start, kDriverWordLimit));
}

bool IsDrivenByIdeCdrom(int interface, const std::string& entry) {
  char path[kDrivePathSize];
  snprintf(path, sizeof path, "/proc/ide/ide%d/%s/driver", interface, entry.c_str());
  std::string text;
  return kavo::os::ReadTextFile(path, text) && FirstWord(text) == "ide-cdrom";
}

// Any drive status counts, an empty tray included. The status is asked of
// the current slot, which every drive has; a changer would refuse a slot
// number it does not have.
bool AnswersDriveStatus(char letter) {
  char node[kDrivePathSize];
  snprintf(node, sizeof node, "/dev/hd%c", letter);
  const int fd = kavo::os::Open(node, O_RDONLY | O_NONBLOCK);
  if (fd < 0) return false;
  const int status =
      kavo::os::Ioctl(fd, CDROM_DRIVE_STATUS, reinterpret_cast<void*>(static_cast<intptr_t>(CDSL_CURRENT)));
  kavo::os::Close(fd);
  return status != -1;
}

// The letters of the interface's usable optical drives, in ascending order.
std::vector<char> UsableDriveLetters(int interface) {
  std::vector<char> letters;
  char directory[kInterfacePathSize];
  snprintf(directory, sizeof directory, "/proc/ide/ide%d", interface);
  std::vector<std::string> entries;
  if (!kavo::os::ListDirectory(directory, entries)) return letters;
  for (const std::string& entry : entries) {
    if (entry.size() < 3 || entry.compare(0, 2, "hd") != 0) continue;
    if (IsDrivenByIdeCdrom(interface, entry) && AnswersDriveStatus(entry[2])) letters.push_back(entry[2]);
  }
  std::sort(letters.begin(), letters.end());
  return letters;
}

void RegisterInterface(int adapter, const std::vector<char>& letters) {
  for (size_t target = 0; target < letters.size(); ++target) {
    char node[kDrivePathSize];
    snprintf(node, sizeof node, "/dev/hd%c", letters[target]);
    SCSI_RegisterDevice(SCSI_MakeDeviceKey(adapter, 0, static_cast<int>(target), 0),
                        SCSI_NewDeviceProperties(node, true));
    SCSI_RegisterAdapter(adapter, "ide-cdrom", 0);
  }
}

}  // namespace

void SCSI_ScanIdeDevices() {
  for (int interface = 0; interface < kIdeInterfaces; ++interface) {
    const std::vector<char> letters = UsableDriveLetters(interface);
    if (letters.empty()) continue;
    RegisterInterface(ControllerCount, letters);
    ++ControllerCount;
  }
  IdeAdapterCount = ControllerCount.load();
}
