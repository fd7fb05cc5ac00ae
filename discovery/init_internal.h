// Discovery's process-wide state and the registry's life cycle: the build,
// the rescan and the presence probe.
#pragma once

#include <pthread.h>

#include <atomic>

// 1 once SCSI_Init has seen a 2.6 or later kernel: enables the IDE pass,
// sysfs adapter names, HAL and the skipping of "ide-scsi" hosts.
extern int IsKernel26;

// Raised while SCSI_Done stops the hot-plug monitor; a rescan waiting for
// exclusive holds gives up on it.
extern std::atomic<int> MonitorStopRequest;

// Stops and joins the monitor thread when one runs (SCSI_Done, and process
// exit). Concurrent and repeated calls are safe: the thread is joined once
// and every caller returns once it has ended.
void SCSI_StopMonitor();

// True for a "%d.%d.%d" release of 2.6 or later.
bool SCSI_IsKernel26Release(char const* release);

// Empties the descriptor cache (closing descriptors, releasing HAL locks)
// and the registry, then refills it: IDE, SCSI host, block-node and HAL
// passes in that order.
void SCSI_BuildRegistry();

// Rebuilds the registry once no drive is held exclusively. Returns false,
// without rebuilding, when the monitor is asked to stop while it waits.
bool SCSI_Rescan();

// host is the Linux SCSI host number. True when the device is registered
// or a generic node answers with its address.
bool SCSI_IsDevicePresent(int host, int channel, int target, int lun);

// Back to the state at load: registry and descriptor cache purged, counts
// and the kernel flag cleared. For tests that build several machines.
void SCSI_ResetDiscoveryState();
