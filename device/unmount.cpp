#include "device/unmount_internal.h"

#include <string.h>

#include <string>

#include "runtime/os.h"

namespace {

const char kMountTable[] = "/etc/mtab";
// The table is read as fgets with a size of 8191 would read it: a longer
// line arrives in pieces of 8190 characters, each taken as a line of its own.
const size_t kLinePieceLength = 8190;
const size_t kLinkTargetSize = 8192;
const char kQuiet[] = " > /dev/null 2>&1";

// The next line as fgets delivers it, newline included; false at the end.
bool NextLine(const std::string& text, size_t& position, std::string& line) {
  if (position >= text.size()) return false;
  size_t end = text.find('\n', position);
  end = end == std::string::npos ? text.size() : end + 1;
  if (end - position > kLinePieceLength) end = position + kLinePieceLength;
  line.assign(text, position, end - position);
  position = end;
  return true;
}

std::string FirstField(const std::string& line) { return line.substr(0, line.find_first_of(" \t")); }

// The link's target text as readlink gives it, else the field itself.
std::string MountedDevice(const std::string& field) {
  char target[kLinkTargetSize];
  ssize_t length = kavo::os::ReadLink(field.c_str(), target, sizeof target);
  return length < 0 ? field : std::string(target, static_cast<size_t>(length));
}

bool StillMounted(const std::string& path) { return SCSI_CountMounts(path.c_str()) >= 1; }

void Run(const std::string& commandLine) { kavo::os::RunShellCommand(commandLine.c_str()); }

std::string HalVolumeUnmount(const std::string& path) {
  return std::string("dbus-send --print-reply --system --dest=org.freedesktop.Hal ") +
         "`hal-find-by-property --key \"block.device\" --string \"" + path + "\" | grep /volume | head -n1` " +
         "org.freedesktop.Hal.Device.Volume.Unmount " + "array:string: " + kQuiet;
}

std::string MediaManagerUnmount(const std::string& path) {
  return std::string("dcop kded mediamanager unmount ") + "`dcop kded mediamanager properties " + path +
         " 2>/dev/null | head -n 1` " + ">/dev/null 2>&1";
}

}  // namespace

int SCSI_CountMounts(char const* pszPath) {
  std::string table;
  if (!kavo::os::ReadTextFile(kMountTable, table)) return 1;
  const size_t pathLength = strlen(pszPath);
  int count = 0;
  size_t position = 0;
  std::string line;
  while (NextLine(table, position, line)) {
    if (MountedDevice(FirstField(line)).compare(0, pathLength, pszPath) == 0) ++count;
  }
  return count;
}

void SCSI_UnmountVolumes(char const* pszPath) {
  const std::string path(pszPath);
  for (int mounts = SCSI_CountMounts(pszPath); mounts > 0; --mounts) Run("umount " + path + kQuiet);
  if (!StillMounted(path)) return;
  Run("pumount " + path + kQuiet);
  if (!StillMounted(path)) return;
  Run(HalVolumeUnmount(path));
  if (!StillMounted(path)) return;
  Run("gnome-mount --no-ui " + std::string("--unmount --device ") + path + kQuiet);
  if (!StillMounted(path)) return;
  Run(MediaManagerUnmount(path));
}
