// Start-up and shut-down of discovery: the kernel gate, HAL, the first
// registry build, and the hot-plug monitor's life.
#include "discovery/init.h"

#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>

#include "aspi/srb.h"
#include "discovery/hal.h"
#include "discovery/hotplug_internal.h"
#include "discovery/init_internal.h"
#include "runtime/os.h"

int IsKernel26 = 0;
int MonitorRunning = 0;
pthread_t MonitorThread;
std::atomic<int> MonitorStopRequest(0);

namespace {

bool RunningKernelIs26OrLater() {
  struct utsname system;
  memset(&system, 0, sizeof system);
  return kavo::os::Uname(&system) == 0 && SCSI_IsKernel26Release(system.release);
}

// HAL counts as unavailable unless its start succeeds.
void StartHal() {
  if (!libhal_support_init()) libhal_support_done();
}

// For an application that unloads the library or exits without SCSI_Done:
// the monitor must not outlive the maps, lists and locks it uses.
struct MonitorTeardown {
  ~MonitorTeardown() { SCSI_StopMonitor(); }
};

void StartMonitor(SCSI_MonitorFunction monitor) {
  // Constructed at the first start, so after every global of the library;
  // static destruction runs in reverse order, so the monitor is joined
  // before any of them is destroyed.
  static MonitorTeardown teardown;
  MonitorRunning = 1;
  if (kavo::os::StartThread(&MonitorThread, monitor, nullptr) != 0) MonitorRunning = 0;
}

}  // namespace

// Asks the monitor to stop and waits for it: at most the cycle in progress
// (a rescan waiting for exclusive holds gives up) and one second of pause.
void SCSI_StopMonitor() {
  if (MonitorRunning != 1 || pthread_equal(MonitorThread, pthread_self())) return;
  MonitorStopRequest.store(1);
  pthread_join(MonitorThread, nullptr);
  MonitorRunning = 0;
  MonitorStopRequest.store(0);
}

bool SCSI_IsKernel26Release(char const* release) {
  int major = -1, minor = -1, patch = -1;
  if (sscanf(release, "%d.%d.%d", &major, &minor, &patch) != 3) return false;
  return major > 2 || (major == 2 && minor >= 6);
}

// Called once, by the first ASPI entry point (winaspi32_checkinit holds its
// own lock around the call, so concurrent first calls wait for the build).
void SCSI_Init() {
  if (RunningKernelIs26OrLater()) {
    IsKernel26 = 1;
    StartHal();
  }
  SCSI_BuildRegistry();
  // Without a usable source the registry stands as built and no thread runs.
  if (SCSI_MonitorFunction monitor = SCSI_TakeFirstSnapshot()) StartMonitor(monitor);
}

// Nothing may throw across this C entry point; stopping and HAL's shut-down
// allocate nothing of their own, the guard is for what they call.
void SCSI_Done(void) {
  try {
    SCSI_StopMonitor();
    if (libhal_support_is_available()) libhal_support_done();
  } catch (...) {
  }
}
