// kavo-bench-instructions: the instructions the library itself executes per
// request, a figure that no load on the machine moves. Meant to run under
// callgrind, which bench/instructions does:
//
//   valgrind --tool=callgrind kavo-bench-instructions
//
// The library runs against the unit tests' fixture world, the system seam
// served in memory, with one generic drive (tests/fixture/data/
// one_generic_drive.txt). For each row the counters are zeroed, the
// requests run, and the counts are dumped under the row's name;
// bench/instructions then takes away what was spent inside the seam
// functions (kavo::os::*, which stand in for the system calls and run the
// emulated drive), so what remains is the library's work on the request
// path, the libc it calls included.
//
// Rows: READ(10) of 64 KiB and of 2 KiB and TEST UNIT READY through
// SendASPI32Command, with the drive not held and held in exclusive mode; and
// the floor's one copy of the data (64 KiB, 2 KiB) from a reply buffer, laid
// out as bench.cpp's floor lays it out, into the application's buffer.
//
// The library and the fixture are linked into one shared object with this
// driver, built from the same position-independent objects as the shipped
// library, so the code counted is the shipped code: calls through the PLT,
// thread-local data through __tls_get_addr.
#include <scsi/sg.h>
#include <string.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <vector>

#include "aspi/srb.h"
#include "device/open.h"
#include "tests/fixture/world.h"

namespace {

const unsigned kSectorBytes = 2048;
const int kWarmRequests = 16;
const int kCountedRequests = 200;

struct Row {
  const char* name;  // the dump's name, which bench/instructions reads
  unsigned sectors;  // 0: TEST UNIT READY
};
const Row kRows[] = {{"read64", 32}, {"read2", 1}, {"tur", 0}};

std::vector<unsigned char> data(32 * kSectorBytes);  // the application's buffer

SRB_ExecSCSICmd RequestFor(const Row& row, unsigned lba) {
  SRB_ExecSCSICmd srb;
  memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_Flags = row.sectors == 0 ? 0 : SRB_DIR_IN;
  srb.SRB_BufPointer = data.data();
  srb.SRB_BufLen = row.sectors * kSectorBytes;
  srb.SRB_SenseLen = 14;
  if (row.sectors == 0) {
    srb.SRB_CDBLen = 6;
    return srb;
  }
  srb.SRB_CDBLen = 10;
  const unsigned char cdb[10] = {0x28, 0, static_cast<unsigned char>(lba >> 24), static_cast<unsigned char>(lba >> 16),
                                 static_cast<unsigned char>(lba >> 8), static_cast<unsigned char>(lba), 0, 0,
                                 static_cast<unsigned char>(row.sectors), 0};
  memcpy(srb.CDBByte, cdb, sizeof cdb);
  return srb;
}

// The blocks are filled before the counting starts: that is the
// application's work, not the library's.
bool CountRequests(const Row& row, const char* dumpName) {
  std::vector<SRB_ExecSCSICmd> blocks;
  for (int i = 0; i < kWarmRequests + kCountedRequests; ++i) blocks.push_back(RequestFor(row, 32u * i));
  for (int i = 0; i < kWarmRequests; ++i) SendASPI32Command(&blocks[i]);
  CALLGRIND_ZERO_STATS;
  for (int i = kWarmRequests; i < kWarmRequests + kCountedRequests; ++i) SendASPI32Command(&blocks[i]);
  CALLGRIND_DUMP_STATS_AT(dumpName);
  for (const SRB_ExecSCSICmd& block : blocks)
    if (block.SRB_Status != SS_COMP) return false;
  return true;
}

// The floor's copy, kept from being optimised away.
__attribute__((noinline)) void FloorCopy(unsigned char* to, const unsigned char* reply, size_t bytes) {
  memcpy(to, reply + sizeof(sg_header), bytes);
  __asm__ volatile("" : : "r"(to) : "memory");
}

void CountFloorCopies(const Row& row, const char* dumpName) {
  std::vector<unsigned char> reply(sizeof(sg_header) + 32 * kSectorBytes);
  const size_t bytes = row.sectors * kSectorBytes;
  for (int i = 0; i < kWarmRequests; ++i) FloorCopy(data.data(), reply.data(), bytes);
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < kCountedRequests; ++i) FloorCopy(data.data(), reply.data(), bytes);
  CALLGRIND_DUMP_STATS_AT(dumpName);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int KavoInstructionBench() {
  fixture::FixtureWorld world;
  world.Load("one_generic_drive");
  if ((GetASPI32SupportInfo() & 0xFF) != 1) {
    std::fprintf(stderr, "kavo-bench-instructions: the fixture drive was not found\n");
    return 1;
  }
  char name[32];
  for (const Row& row : kRows) {
    std::snprintf(name, sizeof name, "free-%s", row.name);
    if (!CountRequests(row, name)) return 1;
  }
  if (ASPI_setExclusiveMode(0, 0) != 0) return 1;
  for (const Row& row : kRows) {
    std::snprintf(name, sizeof name, "held-%s", row.name);
    if (!CountRequests(row, name)) return 1;
  }
  ASPI_unsetExclusiveMode(0, 0);
  for (const Row& row : kRows) {
    if (row.sectors == 0) continue;  // no data, no copy
    std::snprintf(name, sizeof name, "copy-%s", row.name);
    CountFloorCopies(row, name);
  }
  std::printf("%d requests a row\n", kCountedRequests);
  return 0;
}
