// aspitool's burner (write, close), linked with this file for the ASPI entry points: a DVD+R writer that
// stores what it is given. Each data/*.case sets up the disc, scripts departures, runs and names the results.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/aspitool_commands.h"

namespace {

constexpr unsigned kBlock = 2048;
const char* const kStatusWords[] = {"blank", "appendable", "complete"};

struct Scripted {  // commands first to first+times-1 of a kind
  std::string kind, action;
  int first, times;
};

struct Drive {
  unsigned profile = 0x1B;
  int status = 0;
  unsigned long capacity = 4096;
  long corruptByte = -1;  // stored wrongly: the read-back must notice
  std::vector<unsigned char> disc;
  std::vector<Scripted> script;
  std::vector<std::string> trace;  // every command: its kind and the fields that matter
  bool held = false, secondRunning = false;
  int secondExit = -1, secondCommands = 0;
  std::string secondErr, secondImage;
  double paused = 0;
} * drive;

unsigned long Be32(const unsigned char* b) { return (unsigned long)b[0] << 24 | b[1] << 16 | b[2] << 8 | b[3]; }
void PutBe32(unsigned char* b, unsigned long v) { for (int i = 0; i < 4; ++i) b[i] = (unsigned char)(v >> (24 - 8 * i)); }

void Sense(SRB_ExecSCSICmd* srb, unsigned key, unsigned asc, unsigned ascq) {
  srb->SRB_Status = SS_ERR, srb->SRB_TargStat = 2;
  unsigned char* s = srb->SenseArea;
  s[0] = 0x70, s[2] = (unsigned char)key, s[7] = 10, s[12] = (unsigned char)asc, s[13] = (unsigned char)ascq;
}

std::string Name(const unsigned char* cdb) {
  const std::string immed = cdb[1] & (cdb[0] == 0x35 ? 2 : 1) ? "/immed" : "";
  switch (cdb[0]) {
    case 0x00: return "TUR";
    case 0x28: return "READ";
    case 0x2A: return "WRITE";
    case 0x35: return "SYNC" + immed;
    case 0x5B: return ((cdb[2] & 7) == 1 ? "CLOSE-TRACK/" + std::to_string(cdb[5]) : "CLOSE-SESSION/" +
                       std::to_string(cdb[2] & 7)) + immed;
    default: return "ASK";  // GET CONFIGURATION, READ DISC or TRACK INFORMATION, READ CAPACITY
  }
}

int RunAspitool(std::vector<std::string> args, std::string* out, std::string* err);

// A scripted "K/ASC/ASCQ" is the answer; "signal N" and "second-burner" come before the usual one.
bool FollowScript(SRB_ExecSCSICmd* srb, const std::string& kind, int count) {
  for (const Scripted& row : drive->script) {
    if (row.kind != kind || count < row.first || count >= row.first + row.times) continue;
    unsigned key, asc, ascq;
    if (std::sscanf(row.action.c_str(), "%x/%x/%x", &key, &asc, &ascq) == 3) return Sense(srb, key, asc, ascq), true;
    if (row.action.rfind("signal ", 0) == 0) std::raise(std::stoi(row.action.substr(7)));
    if (row.action == "second-burner") {
      std::string out;
      drive->secondRunning = true;
      drive->secondExit = RunAspitool({"write", "0:0:0", drive->secondImage}, &out, &drive->secondErr);
      drive->secondRunning = false;
    }
  }
  return false;
}

void Answer(SRB_ExecSCSICmd* srb) {
  const unsigned char* cdb = srb->CDBByte;
  unsigned char* data = srb->SRB_BufPointer;
  const unsigned long written = drive->disc.size() / kBlock, lba = Be32(cdb + 2), count = cdb[7] << 8 | cdb[8];
  const unsigned char configuration[] = {0, 0, 0, 16, 0, 0, 0, (unsigned char)drive->profile, 0, 0, 3, 8,
                                         0, (unsigned char)drive->profile, 1, 0, 0, 0x10, 0, 0};
  srb->SRB_Status = SS_COMP;
  if (cdb[0] == 0x46) std::memcpy(data, configuration, sizeof configuration);
  if (cdb[0] == 0x51) data[2] = (unsigned char)(drive->status | (drive->status == 1 ? 0x04 : 0)), data[6] = 1;
  if (cdb[0] == 0x52) PutBe32(data + 16, drive->capacity - written);
  if (cdb[0] == 0x25) PutBe32(data, written - 1), PutBe32(data + 4, kBlock);
  if (cdb[0] == 0x2A) {
    if (drive->status == 2 || lba != written) return Sense(srb, 5, drive->status == 2 ? 0x30 : 0x21, 5);
    drive->disc.insert(drive->disc.end(), data, data + count * kBlock);
    if (drive->corruptByte >= 0 && (unsigned long)drive->corruptByte < drive->disc.size())
      drive->disc[drive->corruptByte] ^= 0xFF, drive->corruptByte = -1;
    drive->status = 1;
  }
  if (cdb[0] == 0x28 && lba + count > written) return Sense(srb, 5, 0x21, 0);
  if (cdb[0] == 0x28) std::memcpy(data, &drive->disc[lba * kBlock], count * kBlock);
  if (cdb[0] == 0x5B && (cdb[2] & 7) != 1) drive->status = (cdb[2] & 7) == 2 ? 1 : 2;
}

void Execute(SRB_ExecSCSICmd* srb) {
  if (drive->secondRunning) {  // another program holds the drive: the library answers no device
    ++drive->secondCommands, srb->SRB_Status = SS_NO_DEVICE;
    return;
  }
  const std::string name = Name(srb->CDBByte), kind = name.substr(0, name.find('/'));
  drive->trace.push_back(name);
  int count = 0;
  for (const std::string& seen : drive->trace) count += seen.substr(0, seen.find('/')) == kind;
  if (!FollowScript(srb, kind, count)) Answer(srb);
}

}  // namespace

extern "C" {
unsigned int SendASPI32Command(void* request) {
  auto* inquiry = static_cast<SRB_HAInquiry*>(request);
  if (inquiry->SRB_Cmd == SC_EXEC_SCSI_CMD) return Execute(static_cast<SRB_ExecSCSICmd*>(request)), SS_PENDING;
  if (inquiry->SRB_Cmd == SC_GET_DEV_TYPE) {
    static_cast<SRB_GDEVBlock*>(request)->SRB_DeviceType = 5;
    return inquiry->SRB_Status = SS_COMP;
  }
  inquiry->HA_Unique[6] = 1;  // 64 KiB a transfer: 32 blocks
  return inquiry->SRB_Status = SS_COMP;
}
unsigned int GetASPI32SupportInfo(void) { return 0x0100 | 1; }
// Within one process holds nest; a drive held already stands for one another program holds.
int ASPI_setExclusiveMode(int, int) { return drive->held ? -1 : (drive->held = true, 0); }
int ASPI_unsetExclusiveMode(int, int) { return drive->held ? (drive->held = false, 0) : -1; }
void ASPI_putCallbacks(ASPI_Callbacks*) {}
void SCSI_Done(void) {}
const char* aspitool_adapter_kind(int) { return "real SCSI host"; }
int aspitool_linux_host(int adapter) { return adapter; }
// The drive has no Linux nodes; the registry is the library's, which is not here.
int aspitool_device_nodes(const AspitoolAddress*, AspitoolNodes* nodes) { return nodes->generic[0] = nodes->block[0] = 0; }
int aspitool_registry_devices(void) { return 1; }
int aspitool_find_node(const struct stat*, AspitoolAddress*) { return 0; }
}

namespace {

int RunAspitool(std::vector<std::string> args, std::string* out, std::string* err) {
  args.insert(args.begin(), "aspitool");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  char* texts[2] = {};
  size_t sizes[2];
  FILE *outStream = open_memstream(&texts[0], &sizes[0]), *errStream = open_memstream(&texts[1], &sizes[1]);
  const int status = aspitool_main((int)argv.size(), argv.data(), outStream, errStream);
  std::fclose(outStream), std::fclose(errStream);
  *out = texts[0], *err = texts[1];
  std::free(texts[0]), std::free(texts[1]);
  return status;
}

// An image of bytes bytes, each depending on its block and place, padded to whole blocks.
std::vector<unsigned char> Image(unsigned long bytes, unsigned long blocks) {
  std::vector<unsigned char> image(blocks * kBlock, 0);
  for (unsigned long i = 0; i < bytes && i < image.size(); ++i) image[i] = (unsigned char)(i * 31 + i / kBlock * 7 + 1);
  return image;
}

std::string WriteImage(const std::string& name, unsigned long bytes) {
  const std::vector<unsigned char> image = Image(bytes, (bytes + kBlock - 1) / kBlock);
  std::string path = testing::TempDir() + "burner_" + name + ".iso";
  std::ofstream(path, std::ios::binary).write((const char*)image.data(), (std::streamsize)bytes);
  return path;
}

// The commands that write, close, wait or read back; repeats of one counted once.
std::string Order(const std::vector<std::string>& trace) {
  std::string order;
  for (size_t i = 0; i < trace.size(); ++i)
    if (trace[i] != "ASK" && (i == 0 || trace[i] != trace[i - 1])) order += (order.empty() ? "" : " ") + trace[i];
  return order;
}

std::vector<std::string> CaseNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(KAVO_BURNER_DATA_DIR))
    if (entry.path().extension() == ".case") names.push_back(entry.path().stem().string());
  std::sort(names.begin(), names.end());
  return names;
}

class Burner : public testing::TestWithParam<std::string> {};

TEST_P(Burner, Case) {
  Drive scripted;
  drive = &scripted;
  aspitool_burn_pause = [](double seconds) { drive->paused += seconds; };
  std::ifstream file(std::string(KAVO_BURNER_DATA_DIR) + "/" + GetParam() + ".case");
  unsigned long imageBytes = 200000;
  std::string image = WriteImage(GetParam(), imageBytes), line, out, err;
  scripted.secondImage = WriteImage(GetParam() + "_second", 40000);
  while (std::getline(file, line)) {
    std::string key, rest, word;
    std::istringstream row(line), words;
    std::getline(row >> key >> std::ws, rest);
    words.str(rest);
    const auto contains = [&rest](const std::string& text) { return text.find(rest) != std::string::npos; };
    if (key == "image") image = WriteImage(GetParam(), imageBytes = std::stoul(rest));
    if (key == "disc") {  // STATUS PROFILE CAPACITY [BLOCKS-WRITTEN]
      unsigned long written = 0;
      words >> word >> std::hex >> scripted.profile >> std::dec >> scripted.capacity >> written;
      scripted.status = (int)(std::find(kStatusWords, kStatusWords + 3, word) - kStatusWords);
      scripted.disc = Image(imageBytes, written);
    }
    if (key == "answer") {  // KIND FIRST TIMES|always ACTION
      Scripted answer;
      words >> answer.kind >> answer.first >> word >> std::ws;
      answer.times = word == "always" ? 1 << 30 : std::stoi(word);
      std::getline(words, answer.action);
      scripted.script.push_back(answer);
    }
    if (key == "corrupt") scripted.corruptByte = std::stol(rest);
    if (key == "run") {  // EXIT-STATUS ARGUMENTS
      int exitStatus;
      std::vector<std::string> args;
      for (words >> exitStatus; words >> word;) args.push_back(word == "IMAGE" ? image : word);
      EXPECT_EQ(exitStatus, RunAspitool(args, &out, &err)) << err;
      EXPECT_FALSE(scripted.held) << "the drive is still held";
    } else if (key == "stdout") {
      EXPECT_TRUE(contains(out)) << "stdout lacks \"" << rest << "\": " << out;
    } else if (key == "stderr") {
      EXPECT_TRUE(contains(err)) << "stderr lacks \"" << rest << "\": " << err;
    } else if (key == "order") {
      EXPECT_EQ(rest, Order(scripted.trace));
    } else if (key == "holds") {
      const std::vector<unsigned char> want = Image(imageBytes, std::stoul(rest)), &got = scripted.disc;
      EXPECT_EQ(want.size(), got.size()) << "bytes on the disc";
      EXPECT_EQ(want.size(), std::mismatch(want.begin(), want.end(), got.begin(), got.end()).first - want.begin())
          << "the first byte where the disc differs from the image";
    } else if (key == "status") {
      EXPECT_EQ(rest, kStatusWords[scripted.status]);
    } else if (key == "paused-at-most") {
      EXPECT_LE(scripted.paused, std::stod(rest));
    } else if (key == "second") {
      EXPECT_EQ(1, scripted.secondExit);
      EXPECT_EQ(0, scripted.secondCommands) << "the refused burner sent commands";
      EXPECT_TRUE(contains(scripted.secondErr)) << "the second burner's stderr lacks \"" << rest << "\": " << scripted.secondErr;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, Burner, testing::ValuesIn(CaseNames()),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

}  // namespace
