// kavo-bench: the cost of the library's command path on a real drive.
//
// usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS
//   the generic node of a drive with a disc, its ASPI address, and a range
//   of readable sectors (at least 32) to read from.
//
// Three commands, READ(10) of 64 KiB and of 2 KiB and TEST UNIT READY,
// each timed through SendASPI32Command and through references:
//   drive held:  SG_IO on the very descriptor the library holds; the bare
//                write and read of the generic driver's older interface,
//                which the library uses, on that descriptor; and the
//                floor: that write and read followed by one copy of the
//                data into a separate buffer of the application's size (the
//                interface puts the data behind the reply header, so one
//                copy is the least any layer over it can do);
//   not held:    the bare system calls such a request must make (open,
//                SG_SET_RESERVED_SIZE, SG_SET_TIMEOUT, write, read, close)
//                plus the same one copy.
// The ways of a comparison take turns command by command, so that a busy
// host slows them alike; each figure is the median over several rounds.
// Nothing is asserted: the table shows the figures, the ratios and whether
// each goal is met.
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

const unsigned kSectorBytes = 2048;
const unsigned kLargeSectors = 32;  // 64 KiB
const int kRounds = 9;

enum Command { kRead64, kRead2, kTestUnitReady, kCommands };
const unsigned kSectorsOf[kCommands] = {kLargeSectors, 1, 0};
const int kCountOf[kCommands] = {200, 400, 400};

// The ways compared: the library, and the references.
enum Way { kAspi, kSgIo, kWriteRead, kFloor, kSyscalls, kWays };

struct Drive {
  const char* node;
  int adapter, target;
  unsigned firstLba, sectors, nextLba;
  int heldFd;  // the library's descriptor while the drive is held
};

unsigned BytesOf(Command command) { return kSectorsOf[command] * kSectorBytes; }

std::vector<unsigned char> data(kLargeSectors* kSectorBytes);  // the application's buffer
std::vector<unsigned char> request(sizeof(sg_header) + 16);
std::vector<unsigned char> reply(sizeof(sg_header) + kLargeSectors * kSectorBytes);

double Now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// The next 64 KiB window of the readable range, wrapping around.
unsigned NextLba(Drive& drive) {
  const unsigned lba = drive.nextLba;
  drive.nextLba += kLargeSectors;
  if (drive.nextLba + kLargeSectors > drive.firstLba + drive.sectors) drive.nextLba = drive.firstLba;
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
  cdb[8] = static_cast<unsigned char>(kSectorsOf[command]);
  return 10;
}

bool RunAspi(const Drive& drive, Command command, unsigned lba) {
  SRB_ExecSCSICmd srb;
  std::memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = static_cast<unsigned char>(drive.adapter);
  srb.SRB_Target = static_cast<unsigned char>(drive.target);
  srb.SRB_Flags = command == kTestUnitReady ? 0 : SRB_DIR_IN;
  srb.SRB_BufPointer = data.data();
  srb.SRB_BufLen = BytesOf(command);
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
  io.dxfer_direction = command == kTestUnitReady ? SG_DXFER_NONE : SG_DXFER_FROM_DEV;
  io.dxferp = data.data();
  io.dxfer_len = BytesOf(command);
  io.sbp = sense;
  io.mx_sb_len = sizeof sense;
  io.timeout = 20000;
  return ioctl(drive.heldFd, SG_IO, &io) == 0 && io.status == 0;
}

// One write and one read of the generic driver's older interface on fd;
// with copy, the data then goes into the application's buffer.
bool ExchangeOn(int fd, Command command, unsigned lba, bool copy) {
  const int cdbLength = MakeCdb(command, lba, &request[sizeof(sg_header)]);
  const size_t requestLength = sizeof(sg_header) + static_cast<size_t>(cdbLength);
  const size_t replyLength = sizeof(sg_header) + BytesOf(command);
  sg_header* header = reinterpret_cast<sg_header*>(request.data());
  std::memset(header, 0, sizeof *header);
  header->reply_len = static_cast<int>(replyLength);
  const bool ok = write(fd, request.data(), requestLength) == static_cast<ssize_t>(requestLength) &&
                  read(fd, reply.data(), replyLength) == static_cast<ssize_t>(replyLength) &&
                  reinterpret_cast<sg_header*>(reply.data())->result == 0;
  if (ok && copy) std::memcpy(data.data(), &reply[sizeof(sg_header)], BytesOf(command));
  return ok;
}

// What a request to a drive that is not held costs at least: the open,
// preparation, exchange and close the library must make, and the copy.
bool RunSyscalls(const Drive& drive, Command command, unsigned lba) {
  int reserved = 131072, timeout = 10800000;
  const int fd = open(drive.node, O_RDWR | O_NONBLOCK);
  if (fd < 0) return false;
  fcntl(fd, F_SETFL, O_RDWR);
  ioctl(fd, SG_SET_RESERVED_SIZE, &reserved);
  ioctl(fd, SG_SET_TIMEOUT, &timeout);
  const bool ok = ExchangeOn(fd, command, lba, true);
  close(fd);
  return ok;
}

bool Run(Drive& drive, Way way, Command command, unsigned lba) {
  switch (way) {
    case kAspi: return RunAspi(drive, command, lba);
    case kSgIo: return RunSgIo(drive, command, lba);
    case kWriteRead: return ExchangeOn(drive.heldFd, command, lba, false);
    case kFloor: return ExchangeOn(drive.heldFd, command, lba, true);
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
    const unsigned lba = command == kTestUnitReady ? 0 : NextLba(drive);
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

Figures Measure(Drive& drive, const std::vector<Way>& ways, Command command) {
  std::vector<double> seconds[kWays], ratio[kWays];
  MeasureRound(drive, ways, command, 10);  // warm every path
  for (int i = 0; i < kRounds; ++i) {
    const Round round = MeasureRound(drive, ways, command, kCountOf[command]);
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

struct Table {
  Figures held[kCommands], notHeld[kCommands];
};

Table MeasureAll(Drive& drive) {
  Table table;
  for (int command = 0; command < kCommands; ++command)
    table.notHeld[command] = Measure(drive, {kAspi, kSyscalls}, static_cast<Command>(command));
  if (ASPI_setExclusiveMode(drive.adapter, drive.target) == 0) {
    drive.heldFd = SCSI_GetDeviceFileDesc(drive.adapter, 0, drive.target, 0);
    if (drive.heldFd >= 0)
      for (int command = 0; command < kCommands; ++command)
        table.held[command] = Measure(drive, {kAspi, kSgIo, kWriteRead, kFloor}, static_cast<Command>(command));
    ASPI_unsetExclusiveMode(drive.adapter, drive.target);
  }
  return table;
}

void PrintCell(const Figures& figures, Command command, Way way) {
  if (!figures.ok) {
    std::printf(" %14s", "failed");
    return;
  }
  if (command == kRead64)
    std::printf(" %8.1f MiB/s", BytesOf(command) / figures.seconds[way] / 1048576.0);
  else
    std::printf(" %11.1f us", figures.seconds[way] * 1e6);
}

void PrintRow(const char* path, const Figures* figures, Way way) {
  std::printf("  %-40s", path);
  for (int command = 0; command < kCommands; ++command) PrintCell(figures[command], static_cast<Command>(command), way);
  std::printf("\n");
}

const char* const kCommandName[kCommands] = {"READ(10) 64 KiB", "READ(10) 2 KiB", "TEST UNIT READY"};

void PrintRatio(const char* path, const Figures& figures, Command command, const char* reference, Way way,
                double goal) {
  char what[96];
  std::snprintf(what, sizeof what, "%s, %s, vs %s", path, kCommandName[command], reference);
  if (!figures.ok) {
    std::printf("  %-62s    n/a\n", what);
    return;
  }
  const double ratio = figures.ratio[way];
  if (goal > 0)
    std::printf("  %-62s %6.3f   goal >= %.2f: %s\n", what, ratio, goal, ratio >= goal ? "met" : "NOT MET");
  else
    std::printf("  %-62s %6.3f\n", what, ratio);
}

void PrintTable(const Drive& drive, const Table& table) {
  std::printf("%s, ASPI adapter %d target %d; medians of %d rounds of %d, %d and %d commands a way\n", drive.node,
              drive.adapter, drive.target, kRounds, kCountOf[kRead64], kCountOf[kRead2], kCountOf[kTestUnitReady]);
  std::printf("  %-40s %14s %14s %14s\n", "path", kCommandName[kRead64], kCommandName[kRead2],
              kCommandName[kTestUnitReady]);
  PrintRow("SG_IO on the held descriptor", table.held, kSgIo);
  PrintRow("write+read on the held descriptor", table.held, kWriteRead);
  PrintRow("floor: write+read+copy, held descriptor", table.held, kFloor);
  PrintRow("ASPI, drive held", table.held, kAspi);
  PrintRow("floor: bare system calls+copy", table.notHeld, kSyscalls);
  PrintRow("ASPI, drive not held", table.notHeld, kAspi);
  std::printf("ratios (library's throughput / the reference's, median of the rounds):\n");
  PrintRatio("held", table.held[kRead64], kRead64, "floor", kFloor, 0.97);
  PrintRatio("held", table.held[kRead2], kRead2, "floor", kFloor, 0.97);
  PrintRatio("held", table.held[kTestUnitReady], kTestUnitReady, "SG_IO", kSgIo, 0.95);
  PrintRatio("not held", table.notHeld[kRead64], kRead64, "system calls+copy", kSyscalls, 0.97);
  PrintRatio("not held", table.notHeld[kRead2], kRead2, "system calls+copy", kSyscalls, 0);
  PrintRatio("not held", table.notHeld[kTestUnitReady], kTestUnitReady, "system calls", kSyscalls, 0.97);
  for (int command = 0; command < kCommands; ++command)
    PrintRatio("held", table.held[command], static_cast<Command>(command), "SG_IO", kSgIo, 0);
  for (int command = 0; command < kCommands; ++command)
    PrintRatio("held", table.held[command], static_cast<Command>(command), "write+read", kWriteRead, 0);
}

// The held ratios again once SCSI_Done has stopped the hot-plug monitor,
// to show whether its polling weighs on the figures.
void PrintWithoutMonitor(Drive& drive) {
  SCSI_Done();
  Figures held[kCommands];
  if (ASPI_setExclusiveMode(drive.adapter, drive.target) == 0) {
    for (int command = 0; command < kCommands; ++command)
      held[command] = Measure(drive, {kAspi, kSgIo, kFloor}, static_cast<Command>(command));
    ASPI_unsetExclusiveMode(drive.adapter, drive.target);
  }
  std::printf("hot-plug monitor stopped (SCSI_Done):\n");
  PrintRatio("held", held[kRead64], kRead64, "floor", kFloor, 0);
  PrintRatio("held", held[kRead2], kRead2, "floor", kFloor, 0);
  PrintRatio("held", held[kTestUnitReady], kTestUnitReady, "SG_IO", kSgIo, 0);
}

// The hot-plug monitor's cost while nothing happens: the process's CPU time
// over 30 seconds in which this thread only sleeps.
void PrintIdleCost() {
  const int kIdleSeconds = 30;
  timespec before, after;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  sleep(kIdleSeconds);
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  const double cpu = (after.tv_sec - before.tv_sec) + (after.tv_nsec - before.tv_nsec) / 1e9;
  std::printf("idle, hot-plug monitor running: %.3f s CPU in %d s (%.3f%% of one core)\n", cpu, kIdleSeconds,
              100.0 * cpu / kIdleSeconds);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS\n");
    return 2;
  }
  Drive drive{argv[1], std::atoi(argv[2]), std::atoi(argv[3]),
              static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)),
              static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10)), 0, -1};
  drive.nextLba = drive.firstLba;
  if (drive.sectors < kLargeSectors || (GetASPI32SupportInfo() & 0xFF) == 0) {
    std::fprintf(stderr, "kavo-bench: no readable range or no adapters\n");
    return 2;
  }
  const Table table = MeasureAll(drive);
  PrintTable(drive, table);
  PrintIdleCost();
  PrintWithoutMonitor(drive);
  return 0;
}
