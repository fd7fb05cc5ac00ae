// Burns on tgt's DVD+R writers (0:5:0 alone and 0:7:0 beside reads of the CD drive for the 32-bit program,
// 0:6:0 beside them for the 64-bit one). tgt answers a missing data phase GOOD and refuses READ before the
// close, so the read-back after the close proves what landed.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "aspi/srb.h"

namespace {

enum { IN = 0x08, OUT = 0x10 };
struct Row {
  const char* what;
  unsigned char opcode, flags, function;  // function: byte 2 of CLOSE TRACK/SESSION
  unsigned lba, blocks;
  int status, targStat;
};
const Row rows[] = {
    {"WRITE(10) of 1 block", 0x2A, OUT, 0, 0, 1, 1, 0},
    {"WRITE(10) of 32 blocks (64 KiB)", 0x2A, OUT, 0, 1, 32, 1, 0},
    {"WRITE(10) of 128 blocks (256 KiB, above the 128 KiB reserved buffer)", 0x2A, OUT, 0, 33, 128, 1, 0},
    {"WRITE(10) of other data with flags 0 completes without a data phase", 0x2A, 0, 0, 0, 1, 1, 0},
    {"SYNCHRONIZE CACHE", 0x35, 0, 0, 0, 0, 1, 0},
    {"CLOSE TRACK", 0x5B, 0, 1, 0, 0, 1, 0},
    {"CLOSE SESSION", 0x5B, 0, 2, 0, 0, 1, 0},
    {"READ(10) of 1 block gives back the first write", 0x28, IN, 0, 0, 1, 1, 0},
    {"READ(10) of 32 blocks gives back the second", 0x28, IN, 0, 1, 32, 1, 0},
    {"READ(10) of 128 blocks gives back the third", 0x28, IN, 0, 33, 128, 1, 0},
    {"WRITE(10) to the finished disc: SS_ERR, 14 of 14 sense bytes 70/5/30/05, SRB_TargStat 5", 0x2A, OUT, 0, 161,
     1, 4, 5},
    {"READ(10) after the refusal is served", 0x28, IN, 0, 0, 1, 1, 0},
};

const char* current = "start";  // the row under way, for the watchdog
void NoAnswer(int) {
  char line[256];
  const int length = snprintf(line, sizeof line, "not ok - %s: no answer within 40 s\n", current);
  if (write(1, line, length) < 0) _exit(2);
  _exit(1);
}

unsigned char Pattern(unsigned lba, unsigned byte) { return static_cast<unsigned char>(lba * 7 + byte * 13 + byte / 256); }

int posts;
void CountPost(SRB_ExecSCSICmd*) { ++posts; }

// Runs one row on the writer at 0:target:0; "" when all is as the row says, else what differs.
std::string Run(int target, const Row& row) {
  std::vector<unsigned char> data(row.blocks * 2048u, 0x55);
  for (unsigned i = 0; row.flags == OUT && i < data.size(); ++i) data[i] = Pattern(row.lba + i / 2048, i % 2048);
  if (row.flags == 0 && row.blocks) std::fill(data.begin(), data.end(), 0xEE);  // must not reach the disc
  SRB_ExecSCSICmd srb = {};
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_Target = target, srb.SRB_Flags = row.flags | SRB_POSTING;
  srb.SRB_BufLen = data.size(), srb.SRB_BufPointer = data.data(), srb.SRB_SenseLen = 14, srb.SRB_CDBLen = 10;
  srb.SRB_PostProc = reinterpret_cast<void*>(&CountPost);
  memset(srb.SenseArea, 0xAA, 16);
  srb.CDBByte[0] = row.opcode, srb.CDBByte[2] = row.function, srb.CDBByte[5] = row.function ? 1 : 0;  // track 1
  for (int byte = 0; byte < 4 && !row.function; ++byte) srb.CDBByte[2 + byte] = row.lba >> (24 - 8 * byte);
  srb.CDBByte[7] = row.blocks >> 8, srb.CDBByte[8] = row.blocks;
  posts = 0;
  SendASPI32Command(&srb);
  bool dataRight = true;
  for (unsigned i = 0; row.flags == IN && i < data.size(); ++i) dataRight &= data[i] == Pattern(row.lba + i / 2048, i % 2048);
  const unsigned char* sense = srb.SenseArea;
  const bool senseRight = row.targStat != 5 || ((sense[0] & 0x7F) == 0x70 && (sense[2] & 0x0F) == 5 && sense[12] == 0x30 &&
                                                sense[13] == 5 && sense[14] == 0xAA && sense[15] == 0xAA);
  char got[200];
  snprintf(got, sizeof got, "status %d, SRB_TargStat %d, posted %d times, data %s, sense %02X/%X/%02X/%02X then %02X %02X",
           srb.SRB_Status, srb.SRB_TargStat, posts, dataRight ? "right" : "wrong", sense[0], sense[2] & 0x0F, sense[12],
           sense[13], sense[14], sense[15]);
  const bool right = srb.SRB_Status == row.status && srb.SRB_TargStat == row.targStat && posts == 1 && dataRight && senseRight;
  return right ? "" : got;
}

int failures;

void Burn(const char* how, int target) {
  SRB_ExecSCSICmd unitReady = {};
  unitReady.SRB_Cmd = SC_EXEC_SCSI_CMD, unitReady.SRB_Target = target, unitReady.SRB_CDBLen = 6;
  for (int i = 0; i < 3; ++i) SendASPI32Command(&unitReady);  // any UNIT ATTENTION told
  for (const Row& row : rows) {
    char what[200];
    snprintf(what, sizeof what, "%s (0:%d:0, %s)", row.what, target, how);
    current = what;
    alarm(40);
    const std::string wrong = Run(target, row);
    printf(wrong.empty() ? "ok - %s\n" : "not ok - %s: %s\n", what, wrong.c_str());
    fflush(stdout);
    failures += !wrong.empty();
  }
  alarm(0);
}

// Whole-disc reads of the CD drive at 0:0:0 until told to stop; how many differed from the image.
int ReadsOfTheCdDrive(std::atomic<bool>* stop, std::atomic<int>* reads) {
  FILE* image = fopen("/opt/kavo/disc.iso", "rb");
  std::vector<unsigned char> expected(64 * 2048), got(64 * 2048);
  int wrong = 0;
  for (unsigned lba = 0; !*stop && image; lba = (lba + 64) % 2048, ++*reads) {
    fseek(image, lba * 2048L, SEEK_SET);
    wrong += fread(expected.data(), 2048, 64, image) != 64;
    SRB_ExecSCSICmd srb = {};
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_Flags = IN, srb.SRB_BufLen = got.size(), srb.SRB_BufPointer = got.data();
    srb.SRB_CDBLen = 10, srb.CDBByte[0] = 0x28, srb.CDBByte[4] = lba >> 8, srb.CDBByte[5] = lba, srb.CDBByte[8] = 64;
    SendASPI32Command(&srb);
    wrong += srb.SRB_Status != SS_COMP || got != expected;
  }
  if (image) fclose(image);
  return image ? wrong : 1;
}

}  // namespace

int main() {
  signal(SIGALRM, NoAnswer);
#if defined(__x86_64__)
  const int beside = 6;
#else
  const int beside = 7;
  Burn("alone", 5);
#endif
  std::atomic<bool> stop(false);
  std::atomic<int> reads(0);
  int wrong = 0;
  std::thread reader([&] { wrong = ReadsOfTheCdDrive(&stop, &reads); });
  current = "a first read of the CD drive", alarm(40);
  while (reads == 0) usleep(1000);  // the burn starts among the reads
  Burn("while another thread reads the CD drive", beside);
  stop = true;
  reader.join();
  printf(wrong == 0 ? "ok - %s (%d reads)\n" : "not ok - %s: %d reads, wrong %d\n",
         "reads of the CD drive during the burn carry the disc's data", reads.load(), wrong);
  return failures == 0 && wrong == 0 ? 0 : 1;
}
