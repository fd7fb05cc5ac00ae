// kavo-bench-discovery: the two discovery figures users feel, on the
// machine it runs on. Run in a fresh process: the time until the first
// GetASPI32SupportInfo answers (SCSI_Init builds the registry and starts
// the hot-plug monitor), then the time of one registry rescan, the median
// of several. Linked with the library's objects, since the rescan is not
// exported.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "aspi/srb.h"
#include "discovery/init_internal.h"

namespace {

double Now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

int main() {
  const double start = Now();
  const unsigned int support = GetASPI32SupportInfo();
  const double init = Now() - start;
  std::vector<double> rescans;
  for (int i = 0; i < 9; ++i) {
    const double before = Now();
    if (!SCSI_Rescan()) break;
    rescans.push_back(Now() - before);
  }
  SCSI_Done();
  std::printf("SCSI_Init, first GetASPI32SupportInfo of a fresh process: %.1f ms (%u adapters)\n", init * 1e3,
              support & 0xFF);
  if (rescans.empty()) return 1;
  std::sort(rescans.begin(), rescans.end());
  std::printf("one rescan (SCSI_Rescan), median of %zu: %.1f ms\n", rescans.size(), rescans[rescans.size() / 2] * 1e3);
  return 0;
}
