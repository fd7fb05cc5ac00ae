// kavo-bench-compare: two builds of the library against each other in one
// process, on a real drive, to tell differences smaller than bench/run's
// run-to-run spread.
//
// usage: kavo-bench-compare OLD.so NEW.so ADAPTER FIRST-LBA SECTORS
//   two copies of libKavoASPI, each under a SONAME of its own (bench/compare
//   makes them), the ASPI adapter of a CD drive at target 0 and a readable
//   range of its disc.
//
// Both copies are loaded RTLD_LOCAL, so each keeps its own registry. Rounds
// alternate which copy holds the drive (an exclusive hold is one copy's at a
// time) and which goes first; within a round the library's request and the
// floor (write, read and one copy of the data on the copy's own held
// descriptor, as kavo-bench's floor) take turns command by command. A
// round's ratio is floor time / library time; a pair of rounds, one a copy,
// gives a difference NEW - OLD. Printed: each copy's median ratio and the
// median difference with its quartiles.
#include <dlfcn.h>
#include <scsi/sg.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "aspi/srb.h"

namespace {

const unsigned kSectorBytes = 2048;
const int kRounds = 321;
const int kCommandsPerRound = 150;

struct Library {
  unsigned (*send)(void*);
  unsigned (*supportInfo)();
  int (*hold)(int, int);
  int (*release)(int, int);
  int (*heldDescriptor)(int, int, int, int);
};

bool Load(const char* path, Library& library) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "kavo-bench-compare: %s\n", dlerror());
    return false;
  }
  library.send = reinterpret_cast<unsigned (*)(void*)>(dlsym(handle, "SendASPI32Command"));
  library.supportInfo = reinterpret_cast<unsigned (*)()>(dlsym(handle, "GetASPI32SupportInfo"));
  library.hold = reinterpret_cast<int (*)(int, int)>(dlsym(handle, "ASPI_setExclusiveMode"));
  library.release = reinterpret_cast<int (*)(int, int)>(dlsym(handle, "ASPI_unsetExclusiveMode"));
  library.heldDescriptor =
      reinterpret_cast<int (*)(int, int, int, int)>(dlsym(handle, "_Z22SCSI_GetDeviceFileDesciiii"));
  return library.send && library.supportInfo && library.hold && library.release && library.heldDescriptor;
}

double Now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

struct Range {
  int adapter;
  unsigned first, sectors, next;
};

unsigned char data[kSectorBytes];
unsigned char request[sizeof(sg_header) + 16];
unsigned char reply[sizeof(sg_header) + kSectorBytes];

// READ(10) of one sector (the next of the range), or TEST UNIT READY.
int MakeCdb(bool read, Range& range, unsigned char* cdb) {
  memset(cdb, 0, 10);
  if (!read) return 6;
  const unsigned lba = range.next;
  range.next = range.next + 1 < range.first + range.sectors ? range.next + 1 : range.first;
  cdb[0] = 0x28;
  cdb[2] = static_cast<unsigned char>(lba >> 24);
  cdb[3] = static_cast<unsigned char>(lba >> 16);
  cdb[4] = static_cast<unsigned char>(lba >> 8);
  cdb[5] = static_cast<unsigned char>(lba);
  cdb[8] = 1;
  return 10;
}

bool RunFloor(int fd, bool read, Range& range) {
  const int cdbLength = MakeCdb(read, range, request + sizeof(sg_header));
  const size_t replyLength = sizeof(sg_header) + (read ? kSectorBytes : 0);
  sg_header* header = reinterpret_cast<sg_header*>(request);
  memset(header, 0, sizeof *header);
  header->reply_len = static_cast<int>(replyLength);
  const size_t requestLength = sizeof(sg_header) + static_cast<size_t>(cdbLength);
  const bool ok = write(fd, request, requestLength) == static_cast<ssize_t>(requestLength) &&
                  ::read(fd, reply, replyLength) == static_cast<ssize_t>(replyLength);
  if (ok && read) memcpy(data, reply + sizeof(sg_header), kSectorBytes);
  return ok;
}

bool RunLibrary(const Library& library, bool read, Range& range) {
  SRB_ExecSCSICmd srb;
  memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = static_cast<unsigned char>(range.adapter);
  srb.SRB_Flags = read ? SRB_DIR_IN : 0;
  srb.SRB_BufPointer = data;
  srb.SRB_BufLen = read ? kSectorBytes : 0;
  srb.SRB_SenseLen = 14;
  srb.SRB_CDBLen = static_cast<unsigned char>(MakeCdb(read, range, srb.CDBByte));
  library.send(&srb);
  return srb.SRB_Status == SS_COMP;
}

// One round on one copy: its floor/library time ratio, or a negative value
// when a command failed.
double MeasureRound(const Library& library, bool read, Range& range) {
  if (library.hold(range.adapter, 0) != 0) return -1;
  const int fd = library.heldDescriptor(range.adapter, 0, 0, 0);
  double floorTime = 0, libraryTime = 0;
  bool ok = fd >= 0;
  for (int i = 0; i < kCommandsPerRound + 10 && ok; ++i) {
    const bool floorFirst = i % 2 == 0;
    const double start = Now();
    ok = floorFirst ? RunFloor(fd, read, range) : RunLibrary(library, read, range);
    const double middle = Now();
    ok = ok && (floorFirst ? RunLibrary(library, read, range) : RunFloor(fd, read, range));
    const double end = Now();
    if (i < 10) continue;  // warming
    floorTime += floorFirst ? middle - start : end - middle;
    libraryTime += floorFirst ? end - middle : middle - start;
  }
  library.release(range.adapter, 0);
  return ok ? floorTime / libraryTime : -1;
}

double Quantile(std::vector<double> values, int numerator, int denominator) {
  std::sort(values.begin(), values.end());
  return values[values.size() * numerator / denominator];
}

bool Compare(const Library (&libraries)[2], bool read, Range& range) {
  std::vector<double> ratios[2], differences;
  for (int round = 0; round < kRounds; ++round) {
    double ratio[2];
    for (int turn = 0; turn < 2; ++turn) {
      const int which = (turn + round) % 2;
      ratio[which] = MeasureRound(libraries[which], read, range);
      if (ratio[which] < 0) return false;
      ratios[which].push_back(ratio[which]);
    }
    differences.push_back(ratio[1] - ratio[0]);
  }
  std::printf("%-16s floor/library: old %.4f, new %.4f; new - old %+.4f (quartiles %+.4f, %+.4f; %d pairs of rounds)\n",
              read ? "READ(10) 2 KiB" : "TEST UNIT READY", Quantile(ratios[0], 1, 2), Quantile(ratios[1], 1, 2),
              Quantile(differences, 1, 2), Quantile(differences, 1, 4), Quantile(differences, 3, 4), kRounds);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: kavo-bench-compare OLD.so NEW.so ADAPTER FIRST-LBA SECTORS\n");
    return 2;
  }
  Library libraries[2];
  if (!Load(argv[1], libraries[0]) || !Load(argv[2], libraries[1])) return 2;
  Range range{std::atoi(argv[3]), static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)),
              static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10)), 0};
  range.next = range.first;
  if (range.sectors == 0 || (libraries[0].supportInfo() & 0xFF) == 0 || (libraries[1].supportInfo() & 0xFF) == 0) {
    std::fprintf(stderr, "kavo-bench-compare: no readable range or no adapters\n");
    return 2;
  }
  for (bool read : {true, false})
    if (!Compare(libraries, read, range)) {
      std::fprintf(stderr, "kavo-bench-compare: a command failed\n");
      return 1;
    }
  return 0;
}
