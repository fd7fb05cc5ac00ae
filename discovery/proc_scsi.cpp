// The /proc/scsi/scsi listing: the kernel's attached devices, three lines a
// record after a header line, kept when the drive is reachable.
#include <stdio.h>

#include <string>

#include "discovery/hotplug_internal.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"

namespace {

const size_t kLineBufferSize = 254;

// Hands out the text's lines as fgets would into a kLineBufferSize buffer:
// a longer line comes out in pieces.
class LineReader {
 public:
  explicit LineReader(const std::string& text) : text_(text) {}
  bool Next(std::string& line) {
    if (position_ >= text_.size()) return false;
    size_t end = text_.find('\n', position_);
    end = end == std::string::npos ? text_.size() : end + 1;
    if (end - position_ > kLineBufferSize - 1) end = position_ + kLineBufferSize - 1;
    line.assign(text_, position_, end - position_);
    position_ = end;
    return true;
  }

 private:
  const std::string& text_;
  size_t position_ = 0;
};

// The next record, or null when a line is missing or falls short of its
// fields. The %c fields are not terminated by sscanf, hence the zeroed buffers.
CLinuxProcScsiDevice* ReadRecord(LineReader& lines) {
  int host = -1, channel = -1, id = -1, lun = -1;
  unsigned int ansiRevision = static_cast<unsigned int>(-1);
  char vendor[9] = {0}, model[17] = {0}, revision[5] = {0}, type[33] = {0};
  std::string line;
  if (!lines.Next(line) ||
      sscanf(line.c_str(), "Host: scsi%d Channel: %d Id: %d Lun: %d\n", &host, &channel, &id, &lun) != 4)
    return nullptr;
  if (!lines.Next(line) ||
      sscanf(line.c_str(), "  Vendor: %8c Model: %16c Rev: %4c\n", vendor, model, revision) != 3)
    return nullptr;
  if (!lines.Next(line) || sscanf(line.c_str(), "  Type:   %32c ANSI SCSI revision: %02x\n", type, &ansiRevision) != 2)
    return nullptr;
  return new CLinuxProcScsiDevice(host, channel, id, lun, vendor, model, revision, type,
                                  static_cast<int>(ansiRevision));
}

}  // namespace

CLinuxProcScsiDevice::CLinuxProcScsiDevice(int host, int channel, int id, int lun, const char* vendor,
                                           const char* model, const char* revision, const char* type,
                                           int ansiRevision)
    : m_nHost(host),
      m_nChannel(channel),
      m_nId(id),
      m_nLun(lun),
      m_strVendor(vendor),
      m_strModel(model),
      m_strRevision(revision),
      m_strType(type),
      m_nAnsiRevision(ansiRevision),
      m_bMarked(false) {}

CLinuxProcScsiDevice::~CLinuxProcScsiDevice() {}

void CLinuxProcScsiDevice::Mark() { m_bMarked = true; }

void CLinuxProcScsiDevice::UnMark() { m_bMarked = false; }

bool CLinuxProcScsiDevice::IsMarked() { return m_bMarked; }

bool CLinuxProcScsiDevice::operator==(const CLinuxProcScsiDevice& other) {
  return m_nHost == other.m_nHost && m_nChannel == other.m_nChannel && m_nId == other.m_nId &&
         m_nLun == other.m_nLun && m_strVendor == other.m_strVendor && m_strModel == other.m_strModel &&
         m_strRevision == other.m_strRevision && m_strType == other.m_strType;
}

void CLinuxProcScsiDevice::GetDeviceInfo() {}

void SCSI_ParseProcScsiText(const std::string& text, SCSI_ProcScsiDeviceList& list) {
  LineReader lines(text);
  std::string header;
  if (!lines.Next(header)) return;
  while (CLinuxProcScsiDevice* device = ReadRecord(lines)) list.push_back(device);
}

void SCSI_ListProcScsiDevices(SCSI_ProcScsiDeviceList& list) {
  SCSI_ClearProcScsiDeviceList(list);
  std::string text;
  if (!kavo::os::ReadTextFile("/proc/scsi/scsi", text)) return;
  SCSI_ProcScsiDeviceList parsed;
  SCSI_ParseProcScsiText(text, parsed);
  for (CLinuxProcScsiDevice* device : parsed) {
    if (SCSI_IsDevicePresent(device->m_nHost, device->m_nChannel, device->m_nId, device->m_nLun))
      list.push_back(device);
    else
      delete device;
  }
}

void SCSI_ClearProcScsiDeviceList(SCSI_ProcScsiDeviceList& list) {
  for (CLinuxProcScsiDevice*& device : list) {
    delete device;
    device = nullptr;
  }
  list.clear();
}
