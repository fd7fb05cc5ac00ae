// The VM's real drives through the library: each drive's steps with a really mounted disc,
// races with holds and other programs. The rest is scenario-aspitool's.
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <thread>

#include "aspi/srb.h"

namespace {

int failures;

// Prints "ok - what" or "not ok - what: got G, expected E".
void Check(const char* what, int got, int expected) {
  printf(got == expected ? "ok - %s\n" : "not ok - %s: got %d, expected %d\n", what, got, expected);
  fflush(stdout);
  failures += got != expected;
}

// The CD drive on virtio_scsi (host 0), the DVD drive on ata_piix (host 2); ASPI adapter N is host N.
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

SRB_ExecSCSICmd Read10(const Drive& drive, unsigned lba, unsigned char* sector, unsigned char flags) {
  SRB_ExecSCSICmd srb = {};
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_HaId = drive.host, srb.SRB_Target = drive.target, srb.SRB_Flags = flags;
  srb.SRB_BufPointer = sector, srb.SRB_BufLen = 2048, srb.SRB_SenseLen = 14, srb.SRB_CDBLen = 10;
  srb.CDBByte[0] = 0x28, srb.CDBByte[8] = 1;  // one block
  for (int byte = 0; byte < 4; ++byte) srb.CDBByte[2 + byte] = static_cast<unsigned char>(lba >> (24 - 8 * byte));
  return srb;
}

// A read of lba's sector that completes with other data, or fails when it must complete.
int WrongRead(const Drive& drive, unsigned lba, bool mustComplete) {
  unsigned char got[2048];
  SRB_ExecSCSICmd srb = Read10(drive, lba, got, SRB_DIR_IN);
  SendASPI32Command(&srb);
  return srb.SRB_Status != SS_COMP ? mustComplete : !IsDisc(got, lba);
}

// Wrong reads by two threads on the CD drive and one on the DVD drive (all must complete) while the CD
// drive is taken and released 300 times: a held drive's one descriptor needs the device's lock to pair replies.
int ReadsWhileTaking() {
  std::atomic<int> wrong(0);
  std::atomic<bool> stop(false);
  auto reader = [&](const Drive* at, unsigned first) {
    for (unsigned n = 0; !stop; ++n) wrong += WrongRead(*at, dataLba + first + n % 64, at == &atapi);
  };
  std::thread readers[] = {std::thread(reader, &scsi, 0), std::thread(reader, &scsi, 64), std::thread(reader, &atapi, 128)};
  for (int i = 0; i < 300; ++i)
    if (ASPI_setExclusiveMode(scsi.host, scsi.target) == 0) ASPI_unsetExclusiveMode(scsi.host, scsi.target);
  stop = true;
  for (std::thread& thread : readers) thread.join();
  return wrong;
}

enum Action { MOUNT, UNMOUNT, TAKE, RELEASE, OPEN_EXCLUSIVE };
struct Step { const char* what; Action action; int expected; };  // a result or an errno
const Step steps[] = {
    {"the disc is mounted", MOUNT, 0},
    {"taking the drive succeeds", TAKE, 0},
    {"taking it unmounted the disc", UNMOUNT, EINVAL},
    {"an exclusive open is refused", OPEN_EXCLUSIVE, EBUSY},
    {"the hold is released", RELEASE, 0},
    {"the generic node opens exclusively again", OPEN_EXCLUSIVE, 0},
};

int Run(const Drive& drive, Action action) {
  int fd;
  switch (action) {
    case MOUNT: mkdir("/mnt/disc", 0755); return mount(drive.block, "/mnt/disc", "iso9660", MS_RDONLY, nullptr);
    case UNMOUNT: return umount("/mnt/disc") == 0 ? 0 : errno;
    case TAKE: return ASPI_setExclusiveMode(drive.host, drive.target);
    case RELEASE: return ASPI_unsetExclusiveMode(drive.host, drive.target);
    case OPEN_EXCLUSIVE: return (fd = open(drive.generic, O_RDWR | O_EXCL | O_NONBLOCK)) < 0 ? errno : close(fd);
  }
  return -2;
}

int ShortCommandOnAHeldDrive() {
  SRB_ExecSCSICmd srb = Read10(scsi, 0, nullptr, 0);
  srb.SRB_BufLen = 0, srb.SRB_CDBLen = 5;  // READ(10)'s opcode in a 5-byte command, which is rejected
  const int held = ASPI_setExclusiveMode(scsi.host, scsi.target);
  SendASPI32Command(&srb);
  return (held != 0) + WrongRead(scsi, dataLba, true) + (ASPI_unsetExclusiveMode(scsi.host, scsi.target) != 0);
}

// Another program holds the DVD drive (an open without O_NONBLOCK waits) and lets go after 5 s.
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

}  // namespace

int main() {
  const bool ready = FindNodes(&scsi) && FindNodes(&atapi) && LoadDisc();
  Check("the machine has its drives and the disc", ready, true);
  if (!ready) return 1;
  for (int attempt = 0; attempt < 3; ++attempt) WrongRead(scsi, 0, false), WrongRead(atapi, 0, false);  // any UNIT ATTENTION told
  for (const Drive* drive : {&scsi, &atapi})
    for (const Step& step : steps) {
      char what[160];
      snprintf(what, sizeof what, "%s (%s)", step.what, drive->generic);
      Check(what, Run(*drive, step.action), step.expected);
    }
  const struct { const char* what; int (*run)(); } races[] = {
      {"a READ(10) after a rejected 5-byte command on the held drive reads its sector", ShortCommandOnAHeldDrive},
      {"a request to a drive another program holds fails rather than waits; the other goes on",
       ADriveAnotherProgramHolds},
      {"reads while the drive is taken and released carry their sectors", ReadsWhileTaking},
  };
  for (const auto& race : races) Check(race.what, race.run(), 0);
  return failures == 0 ? 0 : 1;
}
