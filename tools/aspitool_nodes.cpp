// The Linux nodes behind an ASPI address, and the address behind a node.
// The SRB interface has no word for them, so this reads the registry that
// the library exports to C++ applications. The lock that guards it is the
// library's own, and its hot-plug monitor may rebuild it at any moment: so
// before the first read the monitor is stopped (SCSI_Done), after which
// nothing changes the registry under the tool. The commands that read it
// run once and end; watch, which needs the monitor, never reads it.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "aspi/srb.h"
#include "device/registry.h"
#include "tools/aspitool_commands.h"

static void keep_registry_still() {
  static bool stopped = false;
  if (!stopped) SCSI_Done();
  stopped = true;
}

static void copy_path(char* to, const CBasicString<char>& path) {
  snprintf(to, ASPITOOL_NODE_LENGTH, "%s", path.GetString());
}

extern "C" int aspitool_device_nodes(const AspitoolAddress* address, AspitoolNodes* nodes) {
  keep_registry_still();
  char key[32];
  snprintf(key, sizeof key, "h%02dc%02dt%02dd%02d", address->adapter, 0, address->target, address->lun);
  nodes->generic[0] = nodes->block[0] = 0;
  SCSI_DevicesMap::const_iterator found = DevicesMap.find(CBasicString<char>(key));
  if (found == DevicesMap.end() || found->second == nullptr) return 0;
  copy_path(nodes->generic, found->second->DevicePath);
  copy_path(nodes->block, found->second->BlockDevicePath);
  return 1;
}

extern "C" int aspitool_registry_devices(void) {
  keep_registry_still();
  int count = 0;
  for (const auto& entry : DevicesMap) count += entry.second != nullptr;
  return count;
}

// The same device: the same kind of node with the same numbers, so that
// links such as /dev/cdrom count too.
static bool same_node(const struct stat& node, const CBasicString<char>& path) {
  struct stat other;
  return !path.IsEmpty() && stat(path.GetString(), &other) == 0 && other.st_rdev == node.st_rdev &&
         (other.st_mode & S_IFMT) == (node.st_mode & S_IFMT);
}

extern "C" int aspitool_find_node(const struct stat* node, AspitoolAddress* address) {
  keep_registry_still();
  for (const auto& entry : DevicesMap) {
    int adapter, channel, target, lun;
    if (entry.second == nullptr ||
        sscanf(entry.first.GetString(), "h%dc%dt%dd%d", &adapter, &channel, &target, &lun) != 4)
      continue;
    if (!same_node(*node, entry.second->DevicePath) && !same_node(*node, entry.second->BlockDevicePath)) continue;
    address->adapter = (unsigned char)adapter;
    address->target = (unsigned char)target;
    address->lun = (unsigned char)lun;
    return 1;
  }
  return 0;
}
