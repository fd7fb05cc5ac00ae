// The library loaded with dlopen (as a Win32 program's LoadLibrary maps to
// it), the CD drive worked, then unloaded, in main or from an atexit
// handler, while the hot-plug monitor is in each part of its cycle. Each row
// is a child process that must be gone within 5 s of the unload.
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "aspi/srb.h"

namespace {

void* library;
std::atomic<int> heard(0);

template <typename Function>
Function Find(const char* name) {
  return reinterpret_cast<Function>(dlsym(library, name));
}

// The monitor stays a while in the application's callback.
void Heard(unsigned int) {
  ++heard;
  usleep(300000);
}

void Unload() { dlclose(library); }

bool Write(const char* path, const char* text) {
  FILE* file = fopen(path, "w");
  const bool written = file != nullptr && fputs(text, file) >= 0;
  return file != nullptr && fclose(file) == 0 && written;
}

// INQUIRY and MODE SENSE(10) of the capabilities page on the CD drive (0:0:0).
bool WorkTheCdDrive() {
  auto send = Find<unsigned int (*)(void*)>("SendASPI32Command");
  unsigned char data[64];
  const unsigned char cdbs[2][10] = {{0x12, 0, 0, 0, 36}, {0x5A, 0, 0x2A, 0, 0, 0, 0, 0, 64, 0}};
  for (const unsigned char* cdb : cdbs) {
    SRB_ExecSCSICmd srb = {};
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_Flags = SRB_DIR_IN, srb.SRB_BufLen = sizeof data;
    srb.SRB_BufPointer = data, srb.SRB_SenseLen = 14, srb.SRB_CDBLen = cdb[0] == 0x12 ? 6 : 10;
    for (int i = 0; i < 10; ++i) srb.CDBByte[i] = cdb[i];
    for (int attempt = 0; attempt < 3 && (send(&srb), srb.SRB_Status != SS_COMP); ++attempt) {}  // a UNIT ATTENTION
    if (srb.SRB_Status != SS_COMP) return false;
  }
  return true;
}

enum Moment { kStart, kPause, kCallbackAfterRemoval, kRescanAfterArrival };

// The child: brings the monitor to the moment, says 'u' on the pipe and unloads.
int Child(Moment moment, bool fromAtexit, bool doneFirst, int pipe) {
  alarm(20);  // stuck before the unload: the row fails without waiting for ever
  library = dlopen("libKavoASPI.so", RTLD_NOW);
  if (library == nullptr) return 2;
  ASPI_Callbacks callbacks = {Heard, Heard};
  Find<void (*)(ASPI_Callbacks*)>("ASPI_putCallbacks")(&callbacks);
  Find<unsigned int (*)()>("GetASPI32SupportInfo")();  // builds the registry and starts the monitor
  if (moment != kStart && !WorkTheCdDrive()) return 3;
  if (moment == kPause) sleep(1);
  if (moment == kCallbackAfterRemoval && !Write("/sys/bus/scsi/devices/0:0:1:0/delete", "1")) return 4;
  while (moment == kCallbackAfterRemoval && heard == 0) usleep(10000);
  if (moment == kRescanAfterArrival) {  // the rescan waits while a drive is held
    if (Find<int (*)(int, int)>("ASPI_setExclusiveMode")(0, 0) != 0) return 5;
    if (!Write("/sys/class/scsi_host/host0/scan", "0 1 0")) return 6;
    sleep(6);
  }
  if (doneFirst) Find<void (*)()>("SCSI_Done")();
  if (write(pipe, "u", 1) != 1) return 7;
  if (fromAtexit) atexit(Unload);
  else Unload();
  return 0;
}

}  // namespace

int main() {
  const struct { const char* what; Moment moment; bool fromAtexit, doneFirst; } rows[] = {
      {"as it starts", kStart, false, false},
      {"as it starts", kStart, true, false},
      {"in its pause", kPause, false, false},
      {"in its pause, after SCSI_Done", kPause, true, true},
      {"in its callbacks after a rescan (a drive went)", kCallbackAfterRemoval, false, false},
      {"in a rescan waiting for a hold (a drive came)", kRescanAfterArrival, true, false},
      {"in its callbacks after a rescan (a drive went)", kCallbackAfterRemoval, true, false},
      {"in a rescan waiting for a hold (a drive came)", kRescanAfterArrival, false, false},
  };
  int failed = 0;
  for (const auto& row : rows) {
    int ends[2];
    if (pipe(ends) != 0) return 1;
    const pid_t child = fork();
    if (child == 0) _exit(Child(row.moment, row.fromAtexit, row.doneFirst, ends[1]));
    close(ends[1]);
    char said = 0;
    const bool unloading = read(ends[0], &said, 1) == 1;  // the child's own failures end it too
    close(ends[0]);
    int status = -1, waited = 0;
    while (waitpid(child, &status, WNOHANG) == 0 && waited++ < 500) usleep(10000);
    if (waited > 500) kill(child, SIGKILL), waitpid(child, &status, 0);
    const bool ok = unloading && waited <= 500 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    printf("%s - unloading %s while the monitor is %s ends within 5 s", ok ? "ok" : "not ok",
           row.fromAtexit ? "from an atexit handler" : "in main", row.what);
    printf(ok ? "\n" : " (%s, status %d)\n", unloading ? "unloaded" : "never unloaded", status);
    fflush(stdout);
    failed += !ok;
  }
  return failed == 0 ? 0 : 1;
}
