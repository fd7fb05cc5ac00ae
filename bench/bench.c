/* kavo-bench: the cost of the library's command path on a real drive.
 *
 * usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS
 *   the generic node of a drive with a disc, its ASPI address, and a range
 *   of readable sectors (at least 32) to read from.
 *
 * Two commands, 64 KiB READ(10) and TEST UNIT READY, each issued four ways:
 *   sgio     SG_IO on a descriptor opened once with O_EXCL (the floor for a
 *            held drive);
 *   held     SendASPI32Command while the drive is held in exclusive mode;
 *   syscalls the bare system calls a request to a drive not held must make:
 *            open, SG_SET_RESERVED_SIZE, SG_SET_TIMEOUT, write, read, close;
 *   free     SendASPI32Command on the drive not held.
 * The ways take turns in rounds; each figure is the median over the rounds.
 * Nothing is asserted: the table shows the figures and the ratios. */
#include <errno.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "aspi/srb.h"

/* Weak, so that a library without exclusive mode still runs the rest. */
#pragma weak ASPI_setExclusiveMode
#pragma weak ASPI_unsetExclusiveMode

enum { READ_SECTORS = 32, READ_BYTES = READ_SECTORS * 2048, ROUNDS = 7 };
enum { WAY_SGIO, WAY_HELD, WAY_SYSCALLS, WAY_FREE, WAYS };
enum { COMMAND_READ, COMMAND_TUR, COMMANDS };

static const char* const way_names[WAYS] = {"SG_IO, descriptor held", "ASPI, drive held", "bare system calls",
                                            "ASPI, drive not held"};

typedef struct Bench {
  const char* node;
  int adapter, target;
  unsigned first_lba, sectors, next_lba;
  int held_fd;
  unsigned char* data;
  unsigned char* request;
  unsigned char* reply;
} Bench;

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Next 64 KiB window of the readable range, wrapping around. */
static unsigned next_lba(Bench* bench) {
  unsigned lba = bench->next_lba;
  bench->next_lba += READ_SECTORS;
  if (bench->next_lba + READ_SECTORS > bench->first_lba + bench->sectors) bench->next_lba = bench->first_lba;
  return lba;
}

static int make_cdb(int command, unsigned lba, unsigned char* cdb) {
  memset(cdb, 0, 10);
  if (command == COMMAND_TUR) return 6;
  cdb[0] = 0x28;
  cdb[2] = (unsigned char)(lba >> 24);
  cdb[3] = (unsigned char)(lba >> 16);
  cdb[4] = (unsigned char)(lba >> 8);
  cdb[5] = (unsigned char)lba;
  cdb[8] = READ_SECTORS;
  return 10;
}

static int run_sgio(Bench* bench, int command, unsigned lba) {
  unsigned char cdb[10], sense[32];
  sg_io_hdr_t io;
  memset(&io, 0, sizeof io);
  io.interface_id = 'S';
  io.cmd_len = (unsigned char)make_cdb(command, lba, cdb);
  io.cmdp = cdb;
  io.dxfer_direction = command == COMMAND_READ ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
  io.dxferp = bench->data;
  io.dxfer_len = command == COMMAND_READ ? READ_BYTES : 0;
  io.sbp = sense;
  io.mx_sb_len = sizeof sense;
  io.timeout = 20000;
  return ioctl(bench->held_fd, SG_IO, &io) == 0 && io.status == 0;
}

static int run_aspi(Bench* bench, int command, unsigned lba) {
  SRB_ExecSCSICmd srb;
  memset(&srb, 0, sizeof srb);
  srb.SRB_Cmd = SC_EXEC_SCSI_CMD;
  srb.SRB_HaId = (unsigned char)bench->adapter;
  srb.SRB_Target = (unsigned char)bench->target;
  srb.SRB_Flags = command == COMMAND_READ ? SRB_DIR_IN : 0;
  srb.SRB_BufPointer = bench->data;
  srb.SRB_BufLen = command == COMMAND_READ ? READ_BYTES : 0;
  srb.SRB_SenseLen = 14;
  srb.SRB_CDBLen = (unsigned char)make_cdb(command, lba, srb.CDBByte);
  SendASPI32Command(&srb);
  return srb.SRB_Status == SS_COMP;
}

/* What a request to a drive that is not held costs the kernel: the
 * library's own open, preparation, exchange and close, nothing else. */
static int run_syscalls(Bench* bench, int command, unsigned lba) {
  int reserved = 131072, timeout = 10800000, ok;
  int cdb_length = make_cdb(command, lba, bench->request + sizeof(struct sg_header));
  unsigned reply_length = sizeof(struct sg_header) + (command == COMMAND_READ ? READ_BYTES : 0);
  struct sg_header* header = (struct sg_header*)bench->request;
  int fd = open(bench->node, O_RDWR);
  if (fd < 0) return 0;
  ioctl(fd, SG_SET_RESERVED_SIZE, &reserved);
  ioctl(fd, SG_SET_TIMEOUT, &timeout);
  memset(header, 0, sizeof *header);
  header->reply_len = (int)reply_length;
  ok = write(fd, bench->request, sizeof *header + (size_t)cdb_length) == (ssize_t)(sizeof *header + cdb_length) &&
       read(fd, bench->reply, reply_length) == (ssize_t)reply_length &&
       ((struct sg_header*)bench->reply)->result == 0;
  close(fd);
  return ok;
}

static int run_once(Bench* bench, int way, int command) {
  unsigned lba = command == COMMAND_READ ? next_lba(bench) : 0;
  switch (way) {
    case WAY_SGIO: return run_sgio(bench, command, lba);
    case WAY_SYSCALLS: return run_syscalls(bench, command, lba);
    default: return run_aspi(bench, command, lba);
  }
}

/* Holds or frees the drive as the way needs it; 0 when that is impossible. */
static int prepare(Bench* bench, int way) {
  if (way == WAY_SGIO) {
    bench->held_fd = open(bench->node, O_RDWR | O_EXCL);
    return bench->held_fd >= 0;
  }
  if (way == WAY_HELD)
    return ASPI_setExclusiveMode != NULL && ASPI_setExclusiveMode(bench->adapter, bench->target) == 0;
  return 1;
}

static void finish(Bench* bench, int way) {
  if (way == WAY_SGIO) close(bench->held_fd);
  if (way == WAY_HELD) ASPI_unsetExclusiveMode(bench->adapter, bench->target);
}

/* Seconds per operation for count operations, or a negative value when an
 * operation failed. */
static double measure(Bench* bench, int way, int command, int count) {
  double start, per_operation;
  int i;
  if (!prepare(bench, way)) return -1;
  run_once(bench, way, command);  /* warm the path */
  start = now();
  for (i = 0; i < count; ++i)
    if (!run_once(bench, way, command)) {
      finish(bench, way);
      return -1;
    }
  per_operation = (now() - start) / count;
  finish(bench, way);
  return per_operation;
}

static int by_value(const void* a, const void* b) {
  double left = *(const double*)a, right = *(const double*)b;
  return left < right ? -1 : left > right;
}

static double median(double* values, int count) {
  int i;
  for (i = 0; i < count; ++i)
    if (values[i] < 0) return -1;
  qsort(values, (size_t)count, sizeof *values, by_value);
  return values[count / 2];
}

static void print_ratio(const char* what, double seconds, double reference, double goal) {
  if (seconds <= 0 || reference <= 0) {
    printf("  %-48s   n/a\n", what);
    return;
  }
  printf("  %-48s %6.3f   (goal >= %.2f: %s)\n", what, reference / seconds, goal,
         reference / seconds >= goal ? "met" : "not met");
}

int main(int argc, char** argv) {
  static const int counts[COMMANDS] = {300, 800};
  double samples[WAYS][COMMANDS][ROUNDS], result[WAYS][COMMANDS];
  Bench bench;
  int round, way, command;
  if (argc != 6) {
    fprintf(stderr, "usage: kavo-bench /dev/sgN ADAPTER TARGET FIRST-LBA SECTORS\n");
    return 2;
  }
  memset(&bench, 0, sizeof bench);
  bench.node = argv[1];
  bench.adapter = atoi(argv[2]);
  bench.target = atoi(argv[3]);
  bench.first_lba = bench.next_lba = (unsigned)strtoul(argv[4], NULL, 10);
  bench.sectors = (unsigned)strtoul(argv[5], NULL, 10);
  bench.data = malloc(READ_BYTES);
  bench.request = malloc(sizeof(struct sg_header) + 16);
  bench.reply = malloc(sizeof(struct sg_header) + READ_BYTES);
  if (bench.sectors < READ_SECTORS || GetASPI32SupportInfo() == 0) return 2;

  for (round = 0; round < ROUNDS; ++round)
    for (way = 0; way < WAYS; ++way)
      for (command = 0; command < COMMANDS; ++command)
        samples[way][command][round] = measure(&bench, way, command, counts[command]);
  for (way = 0; way < WAYS; ++way)
    for (command = 0; command < COMMANDS; ++command) result[way][command] = median(samples[way][command], ROUNDS);

  printf("%s, ASPI adapter %d target %d; median of %d rounds of %d reads and %d TEST UNIT READYs\n", bench.node,
         bench.adapter, bench.target, ROUNDS, counts[COMMAND_READ], counts[COMMAND_TUR]);
  printf("  %-26s %18s %18s\n", "path", "64 KiB READ(10)", "TEST UNIT READY");
  for (way = 0; way < WAYS; ++way) {
    double read = result[way][COMMAND_READ], tur = result[way][COMMAND_TUR];
    if (read > 0 && tur > 0)
      printf("  %-26s %9.1f MiB/s %12.1f us\n", way_names[way], READ_BYTES / read / 1048576.0, tur * 1e6);
    else
      printf("  %-26s %18s %18s\n", way_names[way], "failed", "failed");
  }
  printf("ratios (throughput of the library's path / its reference):\n");
  print_ratio("held, READ(10), vs SG_IO", result[WAY_HELD][COMMAND_READ], result[WAY_SGIO][COMMAND_READ], 0.97);
  print_ratio("held, TEST UNIT READY, vs SG_IO", result[WAY_HELD][COMMAND_TUR], result[WAY_SGIO][COMMAND_TUR], 0.97);
  print_ratio("not held, READ(10), vs bare system calls", result[WAY_FREE][COMMAND_READ],
              result[WAY_SYSCALLS][COMMAND_READ], 0.95);
  print_ratio("not held, TEST UNIT READY, vs bare system calls", result[WAY_FREE][COMMAND_TUR],
              result[WAY_SYSCALLS][COMMAND_TUR], 0.95);
  return 0;
}
