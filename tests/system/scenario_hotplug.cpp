// Hot-plug: a SCSI CD drive added and removed through QEMU's monitor, heard
// by the callbacks once the registry holds (or has dropped) it and shown by
// aspitool watch.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "device/registry.h"
#include "support.h"

namespace {

const Drive* disc;
std::atomic<int> heard[2];  // arrivals, removals
std::atomic<unsigned> lastAddress(0);
std::atomic<bool> hotRegistered(false);

// Callbacks run on the monitor thread right after its rebuild; no other
// thread writes the registry, so it can be read here.
template <int kChange>
void Note(unsigned address) {
  char key[32];
  snprintf(key, sizeof key, "h%02dc00t02d00", disc->host);
  hotRegistered = DevicesMap.count(CBasicString<char>(key)) != 0;
  lastAddress = address, ++heard[kChange];
}

// Whether aspitool watch has printed text, or the change has been heard,
// within 20 s.
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

}  // namespace

int main() {
  Machine machine;
  find_machine(&machine);
  check_group("hot-plug");
  if (!check(machine.scsi != nullptr, "the disc drive", "missing")) return check_finish();
  disc = machine.scsi;
  GetASPI32SupportInfo();
  ASPI_Callbacks callbacks = {Note<0>, Note<1>};
  ASPI_putCallbacks(&callbacks);
  const pid_t watcher = fork();
  if (watcher == 0 && freopen("/tmp/watch.out", "w", stdout))
    execl("/opt/kavo/bin/aspitool", "aspitool", "watch", nullptr);
  if (watcher == 0) _exit(127);
  check(Within20s("watching"), "aspitool watch starts", "it did not");
  const struct { const char *monitor, *heard, *shown, *watchShows; } changes[] = {
      {"device_add scsi-cd,bus=scsi0.0,scsi-id=2,lun=0,drive=hot0,id=hotcd", "the arrival callback, after the rebuild",
       "arrived %d:2:0", "aspitool watch shows the arrival"},
      {"device_del hotcd", "the removal callback, after the rebuild", "removed %d:2:0",
       "aspitool watch shows the removal"}};
  for (int change = 0; change < 2; ++change) {
    char shown[32];
    FILE* console = fopen("/dev/console", "w");  // the host hands the line on to QEMU's monitor
    fprintf(console, "kavo-vm: monitor %s\n", changes[change].monitor);
    fclose(console);
    const bool inTime = Within20s(nullptr, change), itsAddress = lastAddress == (unsigned(disc->host) << 16 | 2 << 8);
    check(inTime && itsAddress && hotRegistered == (change == 0), changes[change].heard, "%d heard: %#x, registered %d",
          heard[change].load(), lastAddress.load(), (int)hotRegistered);
    snprintf(shown, sizeof shown, changes[change].shown, disc->host);
    check(Within20s(shown), changes[change].watchShows, "it did not");
  }
  kill(watcher, SIGINT);
  int status = -1;
  waitpid(watcher, &status, 0);
  check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "aspitool watch ends on SIGINT", "status %#x", status);
  SCSI_Done();
  return check_finish();
}
