#include "runtime/system.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <algorithm>
#include <string>
#include <vector>

#include "runtime/os.h"

namespace {

// Files are read as fgets reads them into a buffer of this size: a longer
// line comes back in pieces of at most kLineBufferSize - 1 characters.
const size_t kLineBufferSize = 1024;
const char kBlanks[] = "\t\r\n ";

// The lines fgets would return, line feeds kept, each cut at an embedded
// zero byte as the C string it would be read as.
std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = std::min(text.size(), start + kLineBufferSize - 1);
    const size_t lineFeed = text.find('\n', start);
    if (lineFeed != std::string::npos && lineFeed < end) end = lineFeed + 1;
    lines.push_back(std::string(text.c_str() + start));
    if (lines.back().size() > end - start) lines.back().resize(end - start);
    start = end;
  }
  return lines;
}

// false when the file cannot be opened; an empty file has no lines.
bool ReadLines(const char* path, std::vector<std::string>& lines) {
  std::string text;
  if (!kavo::os::ReadTextFile(path, text)) return false;
  lines = LinesOf(text);
  return true;
}

std::string CutAtLineFeed(const std::string& line) { return line.substr(0, line.find('\n')); }

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool StartsWith(const std::string& line, const char* key, std::string& rest) {
  const size_t keyLength = strlen(key);
  if (line.compare(0, keyLength, key) != 0) return false;
  rest = line.substr(keyLength);
  return true;
}

// "Ubuntu 6.06 'dapper'" from /etc/lsb-release; empty unless it names both
// the distribution and its release.
std::string LsbDistribution() {
  std::vector<std::string> lines;
  if (!ReadLines("/etc/lsb-release", lines)) return std::string();
  std::string identifier, release, codeName, rest;
  for (const std::string& line : lines) {
    if (StartsWith(line, "DISTRIB_ID=", rest)) identifier = rest;
    else if (StartsWith(line, "DISTRIB_RELEASE=", rest)) release = rest;
    else if (StartsWith(line, "DISTRIB_CODENAME=", rest)) codeName = rest;
  }
  identifier = Trim(identifier);
  release = Trim(release);
  codeName = Trim(codeName);
  if (identifier.empty() || release.empty()) return std::string();
  CBasicString<char> distribution;
  distribution.Format("%s %s", identifier.c_str(), release.c_str());
  if (!codeName.empty()) {
    distribution += " '";
    distribution += codeName.c_str();
    distribution += "'";
  }
  return distribution.GetString();
}

struct ReleaseFile {
  const char* path;
  const char* format;
};

const ReleaseFile kReleaseFiles[] = {
    {"/etc/fedora-release", "%s"},
    {"/etc/redhat-release", "%s"},
    {"/etc/SuSE-release", "%s"},
    {"/etc/debian_version", "Debian GNU/Linux %s"},
};

// The first release file that opens decides, even when it is empty: an
// empty file reads as one empty line, so an empty fedora-release names
// nothing, while an empty debian_version still says Debian GNU/Linux.
std::string ReleaseFileDistribution() {
  for (const ReleaseFile& file : kReleaseFiles) {
    std::vector<std::string> lines;
    if (!ReadLines(file.path, lines)) continue;
    CBasicString<char> distribution;
    distribution.Format(file.format, lines.empty() ? "" : lines[0].c_str());
    return distribution.GetString();
  }
  return std::string();
}

// The first line of a kernel file without its line feed. An empty file
// yields nothing, and the caller keeps its default ("Linux", "unknown")
// rather than an empty name.
bool ReadKernelValue(const char* path, std::string& value) {
  std::vector<std::string> lines;
  if (!ReadLines(path, lines) || lines.empty()) return false;
  value = CutAtLineFeed(lines[0]);
  return true;
}

// The 64-bit product of count and unit, in KiB, cut to 32 bits.
unsigned int KiB(unsigned long count, unsigned int unit) {
  return static_cast<unsigned int>((static_cast<uint64_t>(count) * unit) >> 10);
}

std::string FieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

}  // namespace

int CPortableSystem::GetLastError() { return errno; }

CBasicString<char> CPortableSystem::GetErrorString() {
  const int error = errno;
  char buffer[256];
  return CBasicString<char>(strerror_r(error, buffer, sizeof buffer));
}

void CPortableSystem::PauseExecution(int nMilliseconds) {
  if (nMilliseconds <= 0) return;
  unsigned int unslept = kavo::os::SleepSeconds(static_cast<unsigned int>(nMilliseconds / 1000));
  while (unslept != 0) unslept = kavo::os::SleepSeconds(unslept);
  kavo::os::SleepMicroseconds(static_cast<unsigned int>(nMilliseconds % 1000) * 1000);
}

unsigned int CPortableSystem::GetTotalPhysicalMemory() {
  struct sysinfo info;
  if (kavo::os::SysInfo(&info) != 0) return 0;
  return KiB(info.totalram, info.mem_unit);
}

unsigned int CPortableSystem::GetFreePhysicalMemory() {
  struct sysinfo info;
  if (kavo::os::SysInfo(&info) != 0) return 0;
  return KiB(info.freeram, info.mem_unit);
}

// Double precision: a KiB count needs more than a float's 24 bits.
double CPortableSystem::GetMemoryLoad() {
  const double freeKiB = GetFreePhysicalMemory();
  const double totalKiB = GetTotalPhysicalMemory();
  return (freeKiB / totalKiB) * -100.0 + 100.0;
}

CBasicString<char> CPortableSystem::GetOSName() {
  std::string name = "Linux";
  std::string kernelType;
  if (ReadKernelValue("/proc/sys/kernel/ostype", kernelType)) name = kernelType;
  std::string distribution = LsbDistribution();
  if (distribution.empty()) distribution = ReleaseFileDistribution();
  distribution = Trim(distribution);
  if (!distribution.empty()) name += " (" + distribution + ")";
  return CBasicString<char>(name.c_str());
}

CBasicString<char> CPortableSystem::GetOSVersion() {
  std::string version = "unknown";
  struct utsname info;
  memset(&info, 0, sizeof info);
  if (kavo::os::Uname(&info) == 0) {
    version = FieldText(info.release, sizeof info.release);
    const std::string machine = FieldText(info.machine, sizeof info.machine);
    if (!machine.empty()) version += " (" + machine + ")";
  } else {
    ReadKernelValue("/proc/sys/kernel/osrelease", version);
  }
  return CBasicString<char>(version.c_str());
}

void CPortableSystem::GetOSVersion(unsigned int& nMajor, unsigned int& nMinor) {
  nMajor = 0;
  nMinor = 0;
  const CBasicString<char> version = GetOSVersion();
  const char* text = version.GetString();
  int number = 0;
  if (sscanf(text, "%d", &number) == 1) nMajor = static_cast<unsigned int>(number);
  const char* dot = strchr(text, '.');
  if (dot != nullptr) text = dot + 1;
  if (sscanf(text, "%d", &number) == 1) nMinor = static_cast<unsigned int>(number);
}
