// kavo-bench: the cost of the library's command path on a real drive.
//
// usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS
//   the generic node of a drive with a disc, its ASPI address, and a range
//   of readable sectors (at least 32) to read from.
//
// Two commands, 64 KiB READ(10) and TEST UNIT READY, each compared with
// its reference in two pairs:
//   drive held:  SendASPI32Command while the drive is held in exclusive
//                mode, against SG_IO on the very descriptor the library
//                holds;
//   not held:    SendASPI32Command on a drive not held, against the bare
//                system calls such a request must make (open,
//                SG_SET_RESERVED_SIZE, SG_SET_TIMEOUT, write, read, close).
// With the drive held, the write and read of the generic driver's older
// interface, which the library uses, are also timed bare on the held
// descriptor, to tell the interface's own cost from the library's.
// The ways of a comparison take turns command by command, so that a busy
// host slows them alike; each figure is the median over several rounds.
// Nothing is asserted: the table shows the figures and the ratios.
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "aspi/srb.h"
#include "device/open.h"

namespace {

const unsigned kReadSectors = 32;
const unsigned kReadBytes = kReadSectors * 2048;
const int kRounds = 9;

enum Command { kRead, kTestUnitReady, kCommands };
// The ways compared: the library, and the references.
enum Way { kAspi, kSgIo, kWriteRead, kSyscalls, kWays };

struct Drive {
  const char* node;
  int adapter, target;
  unsigned firstLba, sectors, nextLba;
  int heldFd;  // the library's descriptor while the drive is held
};

std::vector<unsigned char> data(kReadBytes);
std::vector<unsigned char> request(sizeof(sg_header) + 16);
std::vector<unsigned char> reply(sizeof(sg_header) + kReadBytes);

double Now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// The next 64 KiB window of the readable range, wrapping around.
unsigned NextLba(Drive& drive) {
  const unsigned lba = drive.nextLba;
  drive.nextLba += kReadSectors;
  if (drive.nextLba + kReadSectors > drive.firstLba + drive.sectors) drive.nextLba = drive.firstLba;
  return lba;
}

int MakeCdb(Command command, unsigned lba, unsigned char* cdb) {
  std::memset(cdb, 0, 10);
  if (command == kTestUnitReady) return 6;
  cdb[0] = 0x28;
  cdb[2] = static_cast<unsigned char>(lba >> 24);
  cdb[3] = static_cast<unsigned char>(lba >> 16);
  cdb[4] = static_cast<unsigned char>(lba >> 8);
  cdb[5] = static_cast<unsigned char>(lba);
  cdb[8] = kReadSectors;
  return 10;
}

bool RunAspi(const Drive& drive, Command command, unsigned lba) {
  SRB_ExecSCSICmd srb;
  std::memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = static_cast<unsigned char>(drive.adapter);
  srb.SRB_Target = static_cast<unsigned char>(drive.target);
  srb.SRB_Flags = command == kRead ? SRB_DIR_IN : 0;
  srb.SRB_BufPointer = data.data();
  srb.SRB_BufLen = command == kRead ? kReadBytes : 0;
  srb.SRB_SenseLen = 14;
  srb.SRB_CDBLen = static_cast<unsigned char>(MakeCdb(command, lba, srb.CDBByte));
  SendASPI32Command(&srb);
  return srb.SRB_Status == SS_COMP;
}

bool RunSgIo(const Drive& drive, Command command, unsigned lba) {
  unsigned char cdb[10], sense[32];
  sg_io_hdr_t io;
  std::memset(&io, 0, sizeof io);
  io.interface_id = 'S';
  io.cmd_len = static_cast<unsigned char>(MakeCdb(command, lba, cdb));
  io.cmdp = cdb;
  io.dxfer_direction = command == kRead ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
  io.dxferp = data.data();
  io.dxfer_len = command == kRead ? kReadBytes : 0;
  io.sbp = sense;
  io.mx_sb_len = sizeof sense;
  io.timeout = 20000;
  return ioctl(drive.heldFd, SG_IO, &io) == 0 && io.status == 0;
}

// One write and one read of the generic driver's older interface on fd.
bool ExchangeOn(int fd, Command command, unsigned lba) {
  const int cdbLength = MakeCdb(command, lba, &request[sizeof(sg_header)]);
  const size_t requestLength = sizeof(sg_header) + static_cast<size_t>(cdbLength);
  const size_t replyLength = sizeof(sg_header) + (command == kRead ? kReadBytes : 0);
  sg_header* header = reinterpret_cast<sg_header*>(request.data());
  std::memset(header, 0, sizeof *header);
  header->reply_len = static_cast<int>(replyLength);
  return write(fd, request.data(), requestLength) == static_cast<ssize_t>(requestLength) &&
         read(fd, reply.data(), replyLength) == static_cast<ssize_t>(replyLength) &&
         reinterpret_cast<sg_header*>(reply.data())->result == 0;
}

// What a request to a drive that is not held costs the kernel: the
// library's open, preparation, exchange and close, nothing else.
bool RunSyscalls(const Drive& drive, Command command, unsigned lba) {
  int reserved = 131072, timeout = 10800000;
  const int fd = open(drive.node, O_RDWR);
  if (fd < 0) return false;
  ioctl(fd, SG_SET_RESERVED_SIZE, &reserved);
  ioctl(fd, SG_SET_TIMEOUT, &timeout);
  const bool ok = ExchangeOn(fd, command, lba);
  close(fd);
  return ok;
}

bool Run(Drive& drive, Way way, Command command, unsigned lba) {
  switch (way) {
    case kAspi: return RunAspi(drive, command, lba);
    case kSgIo: return RunSgIo(drive, command, lba);
    case kWriteRead: return ExchangeOn(drive.heldFd, command, lba);
    default: return RunSyscalls(drive, command, lba);
  }
}

struct Round {
  double seconds[kWays] = {};  // per operation
  bool ok = true;
};

// count commands each way, the ways taking turns and rotating who starts.
Round MeasureRound(Drive& drive, const std::vector<Way>& ways, Command command, int count) {
  Round round;
  const size_t n = ways.size();
  for (int i = 0; i < count && round.ok; ++i) {
    const unsigned lba = command == kRead ? NextLba(drive) : 0;
    for (size_t turn = 0; turn < n && round.ok; ++turn) {
      const Way way = ways[(turn + static_cast<size_t>(i)) % n];
      const double start = Now();
      round.ok = Run(drive, way, command, lba);
      round.seconds[way] += Now() - start;
    }
  }
  for (double& seconds : round.seconds) seconds /= count;
  return round;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Figures {
  bool ok = false;
  double seconds[kWays] = {};  // per operation
  double ratio[kWays] = {};    // the way's time / ASPI's time: ASPI's throughput relative to the way
};

Figures Measure(Drive& drive, const std::vector<Way>& ways, Command command, int count) {
  std::vector<double> seconds[kWays], ratio[kWays];
  MeasureRound(drive, ways, command, 10);  // warm every path
  for (int i = 0; i < kRounds; ++i) {
    const Round round = MeasureRound(drive, ways, command, count);
    if (!round.ok) return Figures();
    for (Way way : ways) {
      seconds[way].push_back(round.seconds[way]);
      ratio[way].push_back(round.seconds[way] / round.seconds[kAspi]);
    }
  }
  Figures figures;
  figures.ok = true;
  for (Way way : ways) {
    figures.seconds[way] = Median(seconds[way]);
    figures.ratio[way] = Median(ratio[way]);
  }
  return figures;
}

void PrintRow(const char* path, const Figures* figures, Way way) {
  const Figures& read = figures[kRead];
  const Figures& tur = figures[kTestUnitReady];
  if (!read.ok || !tur.ok) {
    std::printf("  %-34s %16s %16s\n", path, "failed", "failed");
    return;
  }
  std::printf("  %-34s %10.1f MiB/s %13.1f us\n", path, kReadBytes / read.seconds[way] / 1048576.0,
              tur.seconds[way] * 1e6);
}

void PrintRatio(const char* what, const Figures& figures, Way reference, double goal) {
  if (!figures.ok) {
    std::printf("  %-50s    n/a\n", what);
    return;
  }
  const double ratio = figures.ratio[reference];
  if (goal > 0)
    std::printf("  %-50s %6.3f   (goal >= %.2f: %s)\n", what, ratio, goal, ratio >= goal ? "met" : "not met");
  else
    std::printf("  %-50s %6.3f\n", what, ratio);
}

}  // namespace

// The hot-plug monitor's cost while nothing happens: the process's CPU time
// over 30 seconds in which this thread only sleeps.
static void PrintIdleCost() {
  const int kIdleSeconds = 30;
  timespec before, after;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  sleep(kIdleSeconds);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  const double cpu = (after.tv_sec - before.tv_sec) + (after.tv_nsec - before.tv_nsec) / 1e9;
  std::printf("idle, hot-plug monitor running: %.3f s CPU in %d s (%.3f%% of one core)\n", cpu, kIdleSeconds,
              100.0 * cpu / kIdleSeconds);
}

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS\n");
    return 2;
  }
  Drive drive{argv[1], std::atoi(argv[2]), std::atoi(argv[3]),
              static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)),
              static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10)), 0, -1};
  drive.nextLba = drive.firstLba;
  if (drive.sectors < kReadSectors || (GetASPI32SupportInfo() & 0xFF) == 0) {
    std::fprintf(stderr, "kavo-bench: no readable range or no adapters\n");
    return 2;
  }
  const int counts[kCommands] = {200, 500};

  Figures notHeld[kCommands], held[kCommands];
  for (int command = 0; command < kCommands; ++command)
    notHeld[command] = Measure(drive, {kAspi, kSyscalls}, static_cast<Command>(command), counts[command]);
  if (ASPI_setExclusiveMode(drive.adapter, drive.target) == 0) {
    drive.heldFd = SCSI_GetDeviceFileDesc(drive.adapter, 0, drive.target, 0);
    if (drive.heldFd >= 0)
      for (int command = 0; command < kCommands; ++command)
        held[command] = Measure(drive, {kAspi, kSgIo, kWriteRead}, static_cast<Command>(command), counts[command]);
    ASPI_unsetExclusiveMode(drive.adapter, drive.target);
  }

  std::printf("%s, ASPI adapter %d target %d; medians of %d rounds of %d reads and %d TEST UNIT READYs a way\n",
              drive.node, drive.adapter, drive.target, kRounds, counts[kRead], counts[kTestUnitReady]);
  std::printf("  %-34s %16s %16s\n", "path", "64 KiB READ(10)", "TEST UNIT READY");
  PrintRow("SG_IO on the held descriptor", held, kSgIo);
  PrintRow("write+read on the held descriptor", held, kWriteRead);
  PrintRow("ASPI, drive held", held, kAspi);
  PrintRow("bare system calls", notHeld, kSyscalls);
  PrintRow("ASPI, drive not held", notHeld, kAspi);
  std::printf("ratios (library's throughput / the reference's, median of the rounds):\n");
  PrintRatio("held, READ(10), vs SG_IO", held[kRead], kSgIo, 0.97);
  PrintRatio("held, TEST UNIT READY, vs SG_IO", held[kTestUnitReady], kSgIo, 0.97);
  PrintRatio("not held, READ(10), vs bare system calls", notHeld[kRead], kSyscalls, 0.95);
  PrintRatio("not held, TEST UNIT READY, vs bare system calls", notHeld[kTestUnitReady], kSyscalls, 0.95);
  PrintRatio("held, READ(10), vs bare write+read", held[kRead], kWriteRead, 0);
  PrintRatio("held, TEST UNIT READY, vs bare write+read", held[kTestUnitReady], kWriteRead, 0);
  PrintIdleCost();
  return 0;
}
