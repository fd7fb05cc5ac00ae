// The VM's real drives through the library: each drive's steps with a really mounted
// disc, races with holds and other programs, per-device workers, hot-plug last.
// Reads, TOC, sense texts and INQUIRY versions are scenario-aspitool's rows.
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "aspi/srb.h"
#include "aspi/worker.h"
#include "device/registry.h"
#include "runtime/thread.h"

namespace {

int failures;

// Prints "ok - what" or "not ok - what: why"; returns passed.
bool Check(bool passed, const char* what, const char* whyFormat, ...) {
  char why[256];
  va_list args;
  va_start(args, whyFormat);
  vsnprintf(why, sizeof why, whyFormat, args);
  va_end(args);
  printf(passed ? "ok - %s\n" : "not ok - %s: %s\n", what, why);
  fflush(stdout);
  failures += !passed;
  return passed;
}

// tools/vm's drives with the disc: a CD drive on virtio_scsi (host 0), a DVD drive on
// ata_piix (host 2). Without IDE adapters the ASPI adapter number is the Linux host number.
struct Drive { int host, target; char generic[32], block[32]; };  // the nodes: /dev/sgN, /dev/srN
Drive scsi{0, 0, "", ""}, atapi{2, 0, "", ""};

bool FindNodes(Drive* drive) {
  char* nodes[2] = {drive->generic, drive->block};
  const char* kinds[2] = {"scsi_generic", "block"};
  for (int kind = 0; kind < 2; ++kind) {
    char pattern[96];
    glob_t found;
    snprintf(pattern, sizeof pattern, "/sys/bus/scsi/devices/%d:0:%d:0/%s/*", drive->host, drive->target, kinds[kind]);
    if (glob(pattern, 0, nullptr, &found) == 0) snprintf(nodes[kind], 32, "/dev/%.20s", strrchr(found.gl_pathv[0], '/') + 1);
    globfree(&found);
  }
  return drive->generic[0] && drive->block[0];
}

unsigned dataLba;  // the test disc's data file
int image = -1;    // the test disc's sectors

bool LoadDisc() {
  FILE* file = fopen("/opt/kavo/disc.env", "r");
  const int read = file ? fscanf(file, "DISC_SECTORS=%*u README_LBA=%*u README_SIZE=%*u DATA_LBA=%u", &dataLba) : 0;
  if (file) fclose(file);
  return read == 1 && (image = open("/opt/kavo/disc.iso", O_RDONLY)) >= 0;
}

// Whether data holds the disc image's sector at lba.
bool IsDisc(const unsigned char* data, unsigned lba) {
  unsigned char expected[2048];
  return pread(image, expected, 2048, off_t(lba) * 2048) == 2048 && memcmp(data, expected, 2048) == 0;
}

SRB_ExecSCSICmd Request(const Drive& drive, unsigned char flags, unsigned char* buffer, unsigned length,
                        const unsigned char* cdb, unsigned char cdbLength) {
  SRB_ExecSCSICmd srb = {};
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_HaId = drive.host, srb.SRB_Target = drive.target, srb.SRB_Flags = flags;
  srb.SRB_BufPointer = buffer, srb.SRB_BufLen = length, srb.SRB_SenseLen = 14, srb.SRB_CDBLen = cdbLength;
  memcpy(srb.CDBByte, cdb, cdbLength);
  return srb;
}

SRB_ExecSCSICmd Read10(const Drive& drive, unsigned lba, unsigned char* sector, unsigned char flags) {
  unsigned char cdb[10] = {0x28, 0, 0, 0, 0, 0, 0, 0, 1};
  for (int byte = 0; byte < 4; ++byte) cdb[2 + byte] = static_cast<unsigned char>(lba >> (24 - 8 * byte));
  return Request(drive, flags, sector, 2048, cdb, 10);
}

// A read of the sector at lba that completes with other data, or that
// fails when it must complete.
int WrongRead(const Drive& drive, unsigned lba, bool mustComplete) {
  unsigned char got[2048];
  SRB_ExecSCSICmd srb = Read10(drive, lba, got, SRB_DIR_IN);
  SendASPI32Command(&srb);
  return srb.SRB_Status != SS_COMP ? mustComplete : !IsDisc(got, lba);
}

// Wrong reads by two threads on drive and one on other, while `rounds` holds come and go
// (none: for 0.5 s, all must complete). Each reads its own sectors: a held drive's one
// descriptor hands a reply to whichever thread reads first; the device's lock pairs them.
int ReadsWhileTaking(const Drive& drive, const Drive& other, int rounds) {
  std::atomic<int> wrong(0);
  std::atomic<bool> stop(false);
  auto reader = [&](const Drive* at, unsigned first) {
    for (unsigned n = 0; !stop; ++n) wrong += WrongRead(*at, dataLba + first + n % 64, rounds == 0);
  };
  std::thread readers[] = {std::thread(reader, &drive, 0), std::thread(reader, &drive, 64), std::thread(reader, &other, 128)};
  for (int i = 0; i < rounds; ++i)
    if (ASPI_setExclusiveMode(drive.host, drive.target) == 0) ASPI_unsetExclusiveMode(drive.host, drive.target);
  if (rounds == 0) usleep(500000);
  stop = true;
  for (std::thread& thread : readers) thread.join();
  return wrong;
}

enum Action { TYPE, SEND_KEY, MOUNT, UNMOUNT, TAKE, RELEASE, OPEN_EXCLUSIVE, THREADS };
struct Step { const char* what; Action action; int expected; };  // a result, an errno or a count of wrong reads
const Step steps[] = {
    {"GET DEVICE TYPE says CD/DVD drive", TYPE, 5},
    {"SEND KEY is made data-out and completes with the drive's ILLEGAL REQUEST", SEND_KEY, 5},
    {"the disc is mounted", MOUNT, 0},
    {"taking the drive succeeds", TAKE, 0},
    {"taking it unmounted the disc", UNMOUNT, EINVAL},
    {"an exclusive open is refused", OPEN_EXCLUSIVE, EBUSY},
    {"threads reading the held drive get their own sectors", THREADS, 0},
    {"the hold is released", RELEASE, 0},
    {"the generic node opens exclusively again", OPEN_EXCLUSIVE, 0},
};

int Run(const Drive& drive, Action action, const Drive& other) {
  const unsigned char sendKey[12] = {0xA3};
  SRB_ExecSCSICmd srb = Request(drive, 0, nullptr, 0, sendKey, 12);
  int fd;
  SRB_GDEVBlock type = {};
  type.SRB_Cmd = SC_GET_DEV_TYPE, type.SRB_HaId = drive.host, type.SRB_Target = drive.target;
  switch (action) {
    case TYPE: return SendASPI32Command(&type) == SS_COMP ? type.SRB_DeviceType : -1;
    case SEND_KEY:
      SendASPI32Command(&srb);
      return srb.SRB_Status == SS_COMP && srb.SRB_Flags == SRB_DIR_OUT ? srb.SenseArea[2] & 0x0F : -1;
    case MOUNT: mkdir("/mnt/disc", 0755); return mount(drive.block, "/mnt/disc", "iso9660", MS_RDONLY, nullptr);
    case UNMOUNT: return umount("/mnt/disc") == 0 ? 0 : errno;
    case TAKE: return ASPI_setExclusiveMode(drive.host, drive.target);
    case RELEASE: return ASPI_unsetExclusiveMode(drive.host, drive.target);
    case OPEN_EXCLUSIVE: return (fd = open(drive.generic, O_RDWR | O_EXCL | O_NONBLOCK)) < 0 ? errno : close(fd);
    case THREADS: return ReadsWhileTaking(drive, other, 0);
  }
  return -2;
}

int ShortCommandOnAHeldDrive() {
  const unsigned char cdb[5] = {0x28};
  SRB_ExecSCSICmd srb = Request(scsi, 0, nullptr, 0, cdb, 5);
  const int held = ASPI_setExclusiveMode(scsi.host, scsi.target);
  SendASPI32Command(&srb);
  return (held != 0) + WrongRead(scsi, dataLba, true) + (ASPI_unsetExclusiveMode(scsi.host, scsi.target) != 0);
}

// Another program holds the DVD drive: the generic driver would make an
// open without O_NONBLOCK wait for it. It lets go on its own after 5 s, so
// that a library that waits shows as a request that completes late.
int ADriveAnotherProgramHolds() {
  int ready[2];
  if (pipe(ready) != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    const char answer = open(atapi.generic, O_RDWR | O_EXCL | O_NONBLOCK) >= 0 ? 'y' : 'n';
    if (write(ready[1], &answer, 1) == 1) alarm(5), pause();
    _exit(0);
  }
  char answer = 'n';
  const bool holds = read(ready[0], &answer, 1) == 1 && answer == 'y';
  const int wrong = !holds + !WrongRead(atapi, dataLba, true) + WrongRead(scsi, dataLba, true);  // refused, read
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  return wrong;
}

struct Posted {
  SRB_ExecSCSICmd srb;  // first: the completion finds its request from the block
  std::atomic<CThread*> on;
  unsigned char data[2048];
} posted[2][4];

void NotePosted(SRB_ExecSCSICmd* srb) { reinterpret_cast<Posted*>(srb)->on = CThread::GetThread(); }

// A worker for each drive, as an application starts it; the records keep
// their drives open, so this runs after every hold.
int ReadsOnTheirDrivesWorkers() {
  const Drive* drives[2] = {&scsi, &atapi};
  CThread* workers[2] = {};
  int wrong = 0;
  for (int d = 0; d < 2; ++d) {
    for (int i = 0; i < 4; ++i) {
      posted[d][i].srb = Read10(*drives[d], dataLba + i, posted[d][i].data, SRB_DIR_IN | SRB_POSTING);
      posted[d][i].srb.SRB_PostProc = reinterpret_cast<void*>(&NotePosted);
    }
    ASPI_DEVICE_INFO* record = ASPI_OpenDevice(&posted[d][0].srb);
    if (!record) return 8;
    workers[d] = CThreadingBeginThread(ASPI_ThreadFunction, record, 0, 0, 0);
    record->QueueLock->Lock(0xFFFFFFFF);
    for (Posted& request : posted[d]) record->Queue->push_back(&request.srb);
    record->QueueLock->Unlock();
  }
  for (int waited = 0; (!posted[0][3].on || !posted[1][3].on) && waited < 3000; ++waited) usleep(10000);
  for (int d = 0; d < 2; ++d)
    for (int i = 0; i < 4; ++i)
      wrong += posted[d][i].on != workers[d] || !IsDisc(posted[d][i].data, dataLba + i);
  return wrong;  // the workers idle until the process ends
}

std::atomic<int> heard[2];  // arrivals, removals
std::atomic<unsigned> lastAddress(0);
std::atomic<bool> hotRegistered(false);

// Callbacks run on the monitor thread right after its rebuild; no other
// thread writes the registry, so it can be read here.
template <int kChange>
void Note(unsigned address) {
  hotRegistered = DevicesMap.count(CBasicString<char>("h00c00t02d00")) != 0;
  lastAddress = address, ++heard[kChange];
}

// Whether aspitool watch has printed text, or the change has been heard, within 20 s.
bool Within20s(const char* text, int change = -1) {
  char shown[4096];
  for (int waited = 0; waited < 200; ++waited, usleep(100000)) {
    FILE* log = fopen("/tmp/watch.out", "r");
    shown[log ? fread(shown, 1, sizeof shown - 1, log) : 0] = 0;
    if (log) fclose(log);
    if (change >= 0 ? heard[change] != 0 : strstr(shown, text) != nullptr) return true;
  }
  return false;
}

// A SCSI CD drive at 0:2:0 added and removed through QEMU's monitor: heard
// by the callbacks once the registry holds (or has dropped) it, and shown
// by aspitool watch.
void HotPlug() {
  ASPI_Callbacks callbacks = {Note<0>, Note<1>};
  ASPI_putCallbacks(&callbacks);
  const pid_t watcher = fork();
  if (watcher == 0 && freopen("/tmp/watch.out", "w", stdout)) execl("/opt/kavo/bin/aspitool", "aspitool", "watch", nullptr);
  if (watcher == 0) _exit(127);
  Check(Within20s("watching"), "aspitool watch starts", "it did not");
  const struct { const char *monitor, *heard, *shown; } changes[] = {
      {"device_add scsi-cd,bus=scsi0.0,scsi-id=2,lun=0,drive=hot0,id=hotcd", "arrival", "arrived 0:2:0"},
      {"device_del hotcd", "removal", "removed 0:2:0"}};
  for (int change = 0; change < 2; ++change) {
    FILE* console = fopen("/dev/console", "w");  // the host hands the line on to QEMU's monitor
    fprintf(console, "kavo-vm: monitor %s\n", changes[change].monitor);
    fclose(console);
    const bool inTime = Within20s(nullptr, change);
    Check(inTime && lastAddress == 2 << 8 && hotRegistered == (change == 0), changes[change].heard,
          "%d heard: %#x, registered %d", heard[change].load(), lastAddress.load(), int(hotRegistered));
    Check(Within20s(changes[change].shown), changes[change].shown, "aspitool watch did not show it");
  }
  kill(watcher, SIGINT);
  int status = -1;
  waitpid(watcher, &status, 0);
  Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "aspitool watch ends on SIGINT", "status %#x", status);
}

}  // namespace

int main() {
  if (!Check(FindNodes(&scsi) && FindNodes(&atapi) && LoadDisc(), "the machine has its drives and the disc",
             "nodes \"%s\" \"%s\"", scsi.generic, atapi.generic))
    return 1;
  for (int attempt = 0; attempt < 3; ++attempt) WrongRead(scsi, 0, false), WrongRead(atapi, 0, false);  // any UNIT ATTENTION told
  for (const Drive* drive : {&scsi, &atapi})
    for (const Step& step : steps) {
      char what[160];
      const int got = Run(*drive, step.action, drive == &scsi ? atapi : scsi);
      snprintf(what, sizeof what, "%s (%s)", step.what, drive->generic);
      Check(got == step.expected, what, "got %d, expected %d", got, step.expected);
    }
  const struct { const char* what; int (*run)(); } races[] = {
      {"a READ(10) after a rejected 5-byte command on the held drive reads its sector", ShortCommandOnAHeldDrive},
      {"a request to a drive another program holds fails rather than waits; the other goes on",
       ADriveAnotherProgramHolds},
      {"reads while the drive is taken and released carry their sectors", [] { return ReadsWhileTaking(scsi, atapi, 300); }},
      {"reads queued on two drives' workers complete on their worker with the disc's data", ReadsOnTheirDrivesWorkers},
  };
  for (const auto& race : races) {
    const int wrong = race.run();
    Check(wrong == 0, race.what, "%d wrong", wrong);
  }
  HotPlug();
  return failures == 0 ? 0 : 1;
}
