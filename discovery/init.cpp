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
std::atomic<int> MonitorStopRequest(0);

namespace {

// The monitor's life, guarded by MonitorLifeMutex: no thread yet, running,
// or being stopped by one SCSI_Done (which joins it without the mutex held,
// so that the monitor itself may still call SCSI_Done from a callback).
// Every other caller waits for MonitorStopped: the thread is joined once,
// and SCSI_Done returns only when it is gone. A libc mutex and condition,
// statically initialised, so that a stop at process exit finds them usable.
enum class MonitorState { kNone, kRunning, kStopping };
pthread_mutex_t MonitorLifeMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t MonitorStopped = PTHREAD_COND_INITIALIZER;
MonitorState Monitor = MonitorState::kNone;
pthread_t MonitorThread;

bool RunningKernelIs26OrLater() {
  struct utsname system;
  memset(&system, 0, sizeof system);
  return kavo::os::Uname(&system) == 0 && SCSI_IsKernel26Release(system.release);
}

// HAL counts as unavailable unless its start succeeds.
void StartHal() {
  if (!libhal_support_init()) libhal_support_done();
}

// For an application that exits without SCSI_Done: the monitor must not
// outlive the maps, lists and locks it uses. The library is linked with
// -z nodelete, so dlclose never unmaps it and never runs this: an unload
// would otherwise wait here for the monitor with the dynamic loader's lock
// held, while the monitor may need that very lock (a thread_local with a
// destructor registers under it at its first use). So an application that
// unloads without SCSI_Done gets dlclose back at once, at any moment of the
// monitor's cycle; the monitor (and its callbacks) go on until process
// exit, whose handlers run without the loader's lock and stop it here.
struct MonitorTeardown {
  ~MonitorTeardown() { SCSI_StopMonitor(); }
};

// A child forked while the monitor runs has no monitor thread of its own:
// were it to exit() through the teardown above, it would join a thread that
// does not exist in it (undefined; glibc happens to return at once). The
// mutex and condition may have been held by another thread at the fork, so
// they start afresh too.
void ForgetMonitorInChild() {
  MonitorLifeMutex = PTHREAD_MUTEX_INITIALIZER;
  MonitorStopped = PTHREAD_COND_INITIALIZER;
  Monitor = MonitorState::kNone;
  MonitorStopRequest.store(0);
}

void StartMonitor(SCSI_MonitorFunction monitor) {
  // Constructed at the first start, so after every global of the library;
  // static destruction runs in reverse order, so the monitor is joined
  // before any of them is destroyed.
  static MonitorTeardown teardown;
  static const int forkHandler = pthread_atfork(nullptr, nullptr, ForgetMonitorInChild);
  (void)forkHandler;
  pthread_mutex_lock(&MonitorLifeMutex);
  const bool started = kavo::os::StartThread(&MonitorThread, monitor, nullptr) == 0;
  if (started) Monitor = MonitorState::kRunning;
  pthread_mutex_unlock(&MonitorLifeMutex);
  // A monitor that never runs leaves no snapshot behind.
  if (!started) SCSI_DropSnapshots();
}

}  // namespace

// Asks the monitor to stop and waits for it: at most the cycle in progress
// (a rescan waiting for exclusive holds gives up) and one second of pause.
// The monitor's own call (from a callback) returns at once.
void SCSI_StopMonitor() {
  pthread_mutex_lock(&MonitorLifeMutex);
  const bool onMonitor = Monitor != MonitorState::kNone && pthread_equal(MonitorThread, pthread_self());
  if (Monitor == MonitorState::kRunning && !onMonitor) {
    Monitor = MonitorState::kStopping;
    MonitorStopRequest.store(1);
    pthread_mutex_unlock(&MonitorLifeMutex);
    pthread_join(MonitorThread, nullptr);
    pthread_mutex_lock(&MonitorLifeMutex);
    Monitor = MonitorState::kNone;
    MonitorStopRequest.store(0);
    pthread_cond_broadcast(&MonitorStopped);
  }
  while (Monitor == MonitorState::kStopping && !onMonitor) pthread_cond_wait(&MonitorStopped, &MonitorLifeMutex);
  pthread_mutex_unlock(&MonitorLifeMutex);
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
