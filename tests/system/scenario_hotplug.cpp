// Hot-plug: a SCSI CD drive added and removed through QEMU's monitor while
// another drive is read, with aspitool watch looking on.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "device/registry.h"
#include "support.h"

namespace {

const int kHotTarget = 2;
const Drive* disc;
Disc image;
std::atomic<int> arrivals(0), removals(0), reads(0), badReads(0), badStatus(-1), unitAttentions(0);
std::atomic<unsigned> lastAddress(0);
std::atomic<bool> hotRegistered(false), stopReading(false);

// Callbacks run on the monitor thread right after its rebuild; no other
// thread writes the registry, so it can be read here.
void Note(std::atomic<int>& count, unsigned address) {
  char key[32];
  snprintf(key, sizeof key, "h%02dc00t%02dd00", disc->host, kHotTarget);
  hotRegistered = DevicesMap.count(CBasicString<char>(key)) != 0;
  lastAddress = address;
  ++count;
}
void Arrived(unsigned address) { Note(arrivals, address); }
void Removed(unsigned address) { Note(removals, address); }

void ReadDisc() {
  std::vector<unsigned char> got(16 * 2048), want(16 * 2048);
  for (unsigned lba = image.data_lba; !stopReading; lba = lba + 32 < image.data_lba + image.data_size / 2048 ? lba + 16 : image.data_lba) {
    disc_sectors(lba, 16, want.data());
    unsigned char cdb[10];
    SRB_ExecSCSICmd srb;
    cdb_read10(cdb, lba, 16);
    srb_init(&srb, disc, SRB_DIR_IN, got.data(), got.size(), cdb, 10);
    // A bus change may be reported as UNIT ATTENTION; the drive's word, so
    // the read is repeated once, as applications do.
    SendASPI32Command(&srb);
    if (srb.SRB_Status == SS_ERR && (srb.SenseArea[2] & 0x0F) == 6) ++unitAttentions, SendASPI32Command(&srb);
    if (srb.SRB_Status != SS_COMP || got != want) ++badReads, badStatus = srb.SRB_Status;
    ++reads;
  }
}

double Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

// Whether aspitool watch has printed text, waiting up to 20 s for it.
bool WatchShows(const char* text) {
  char shown[4096];
  for (double start = Now(); Now() - start < 20; usleep(100000)) {
    FILE* log = fopen("/tmp/watch.out", "r");
    shown[log ? fread(shown, 1, sizeof shown - 1, log) : 0] = 0;
    if (log) fclose(log);
    if (strstr(shown, text)) return true;
  }
  return false;
}

// Has the host run command on QEMU's monitor; waits up to 20 s for count
// to move and returns the seconds it took, or -1.
double AfterMonitorCommand(const char* command, std::atomic<int>& count) {
  FILE* console = fopen("/dev/console", "w");
  fprintf(console, "kavo-vm: monitor %s\n", command);
  fclose(console);
  const double start = Now();
  while (count == 0 && Now() - start < 20) usleep(10000);
  return count != 0 ? Now() - start : -1;
}

}  // namespace

int main() {
  Machine machine;
  find_machine(&machine);
  check_group("hot-plug");
  if (!check(machine.scsi != nullptr && load_disc(&image), "the disc drive and the disc", "missing")) return check_finish();
  disc = machine.scsi;
  GetASPI32SupportInfo();
  ASPI_Callbacks callbacks = {Arrived, Removed};
  ASPI_putCallbacks(&callbacks);
  const pid_t watcher = fork();
  if (watcher == 0 && freopen("/tmp/watch.out", "w", stdout)) execl("/opt/kavo/bin/aspitool", "aspitool", "watch", (char*)0);
  if (watcher == 0) _exit(127);
  check(WatchShows("watching"), "aspitool watch starts", "it did not");
  std::thread readers[2] = {std::thread(ReadDisc), std::thread(ReadDisc)};
  sleep(1);
  const unsigned expected = (disc->host << 16) | (kHotTarget << 8);
  double delay = AfterMonitorCommand("device_add scsi-cd,bus=scsi0.0,scsi-id=2,lun=0,drive=hot0,id=hotcd", arrivals);
  check(delay >= 0 && lastAddress == expected && hotRegistered, "the arrival callback, after the rebuild",
        "after %.1f s: %#x, registered %d", delay, lastAddress.load(), (int)hotRegistered);
  printf("# arrival seen after %.1f s\n", delay);
  Drive hot = *disc;
  hot.target = kHotTarget;
  settle(&hot);
  std::vector<unsigned char> got(2048), want(2048);
  disc_sectors(image.readme_lba, 1, want.data());
  check(aspi_read10(&hot, image.readme_lba, 1, got.data()) == SS_COMP && got == want, "the new drive reads", "no");
  char arrived[32], removed[32];
  snprintf(arrived, sizeof arrived, "arrived %d:%d:0", disc->host, kHotTarget);
  snprintf(removed, sizeof removed, "removed %d:%d:0", disc->host, kHotTarget);
  check(WatchShows(arrived), "aspitool watch shows the arrival", "it did not");
  delay = AfterMonitorCommand("device_del hotcd", removals);
  check(delay >= 0 && lastAddress == expected && !hotRegistered, "the removal callback, after the rebuild",
        "after %.1f s: %#x, registered %d", delay, lastAddress.load(), (int)hotRegistered);
  printf("# removal seen after %.1f s\n", delay);
  sleep(6);
  check(arrivals == 1 && removals == 1, "each callback once", "%d arrivals, %d removals", arrivals.load(), removals.load());
  stopReading = true;
  for (std::thread& reader : readers) reader.join();
  printf("# %d unit attentions during %d reads\n", unitAttentions.load(), reads.load());
  check(badReads == 0 && reads > 0, "the concurrent reads", "%d of %d failed, last with status %#x",
        badReads.load(), reads.load(), badStatus.load());
  check(WatchShows(removed), "aspitool watch shows the removal", "it did not");
  kill(watcher, SIGINT);
  int status = -1;
  waitpid(watcher, &status, 0);
  check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "aspitool watch ends on SIGINT", "status %#x", status);
  SCSI_Done();
  return check_finish();
}
