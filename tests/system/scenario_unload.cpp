// dlopen, work the CD drive, unload (in main or atexit) with the monitor in each part of its cycle: each row a
// child that must be gone within 5 s of the unload.
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "aspi/srb.h"

namespace {

void* library;
volatile int heard;
#define CALL(type, name, ...) reinterpret_cast<type>(dlsym(library, name))(__VA_ARGS__)

void Heard(unsigned int) { heard = 1, usleep(300000); }  // the monitor stays a while in the callback
void Unload() { dlclose(library); }

// INQUIRY, then MODE SENSE(10) of the capabilities page, on the CD drive 0:0:0.
bool WorkTheCdDrive() {
  unsigned char data[64];
  const unsigned char opcodes[] = {0x12, 0x5A};
  for (unsigned char opcode : opcodes) {
    SRB_ExecSCSICmd srb = {};
    srb.SRB_Cmd = SC_EXEC_SCSI_CMD, srb.SRB_Flags = SRB_DIR_IN, srb.SRB_BufLen = 36, srb.SRB_BufPointer = data;
    srb.SRB_SenseLen = 14, srb.SRB_CDBLen = opcode == 0x12 ? 6 : 10, srb.CDBByte[0] = opcode;
    srb.CDBByte[2] = opcode == 0x12 ? 0 : 0x2A, srb.CDBByte[opcode == 0x12 ? 4 : 8] = 36;
    for (int attempt = 0; attempt < 3 && (CALL(unsigned (*)(void*), "SendASPI32Command", &srb), srb.SRB_Status != SS_COMP);)
      ++attempt;  // a UNIT ATTENTION is told once
    if (srb.SRB_Status != SS_COMP) return false;
  }
  return true;
}

struct Row { const char* what; int pause; const char* change; bool callback, hold, done, fromAtexit; };

// Brings the monitor to the row's moment (a shell command changes the drives), says so, unloads.
int Child(const Row& row, int said) {
  alarm(20);
  ASPI_Callbacks callbacks = {Heard, Heard};
  if (!(library = dlopen("libKavoASPI.so", RTLD_NOW))) return 2;
  CALL(void (*)(ASPI_Callbacks*), "ASPI_putCallbacks", &callbacks);
  CALL(unsigned (*)(), "GetASPI32SupportInfo");  // builds the registry, starts the monitor
  if (row.pause >= 0 && !WorkTheCdDrive()) return 3;
  if (row.hold && CALL(int (*)(int, int), "ASPI_setExclusiveMode", 0, 0) != 0) return 4;  // a rescan waits for it
  if (row.change && system(row.change) != 0) return 5;
  for (sleep(row.pause > 0 ? row.pause : 0); row.callback && !heard;) usleep(10000);
  if (row.done) CALL(void (*)(), "SCSI_Done");
  if (write(said, "u", 1) != 1) return 6;
  row.fromAtexit ? atexit(Unload) : (Unload(), 0);
  return 0;
}

}  // namespace

int main() {
  const char* went = "echo 1 > /sys/bus/scsi/devices/0:0:1:0/delete";
  const char* came = "echo '0 1 0' > /sys/class/scsi_host/host0/scan";
  const Row rows[] = {
      {"as it starts (no work first)", -1, nullptr, false, false, false, false},
      {"in its pause", 1, nullptr, false, false, false, false},
      {"in its pause, after SCSI_Done", 1, nullptr, false, false, true, true},
      {"in its callbacks after a rescan (a drive went)", 0, went, true, false, false, true},
      {"in a rescan waiting for a hold (a drive came)", 6, came, false, true, false, false},
  };
  int failed = 0;
  for (const Row& row : rows) {
    int ends[2], status = -1, waited = 0;
    char said = 0;
    if (pipe(ends) != 0 || fflush(stdout) != 0) return 1;
    const pid_t child = fork();
    if (child == 0) exit(Child(row, ends[1]));  // exit: the atexit handlers and the library's teardown run
    close(ends[1]);
    const bool unloading = read(ends[0], &said, 1) == 1;  // the child's own failures end it too
    close(ends[0]);
    while (waitpid(child, &status, WNOHANG) == 0 && ++waited <= 500) usleep(10000);
    if (waited > 500) kill(child, SIGKILL), waitpid(child, &status, 0);
    const bool ok = unloading && waited <= 500 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    printf("%s - unloading %s while the monitor is %s ends within 5 s (status %d)\n", ok ? "ok" : "not ok",
           row.fromAtexit ? "from an atexit handler" : "in main", row.what, status);
    failed += !ok;
  }
  // Kept loaded (even unused, as here): no unload ever waits for the monitor under the loader's lock.
  const bool stays = (library = dlopen("libKavoASPI.so", RTLD_NOW)) && dlclose(library) == 0 &&
                     dlopen("libKavoASPI.so", RTLD_NOW | RTLD_NOLOAD) != nullptr;
  printf("%s - the library stays loaded after its dlclose\n", stays ? "ok" : "not ok");
  return failed != 0 || !stays;
}
