/* aspitool's burning commands, through ASPI only: disc tells what a drive
 * holds, write burns an image onto a blank DVD+R and reads it back, close
 * finishes a disc whose burn was cut short. */
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tools/aspitool_commands.h"

#define BLOCK ASPITOOL_BLOCK_SIZE
#define CONFIGURATION_LENGTH 1024u
#define DISC_INFORMATION_LENGTH 34u
#define TRACK_INFORMATION_LENGTH 36u
#define MIB(blocks) ((double)(blocks) * BLOCK / 1048576.0)

typedef struct {
  unsigned short code;
  const char* name;
  int recordable; /* a drive that offers it can write */
} Profile;

static const Profile profiles[] = {
    {0x0000, "none", 0},     {0x0008, "CD-ROM", 0},   {0x0009, "CD-R", 1},      {0x000A, "CD-RW", 1},
    {0x0010, "DVD-ROM", 0},  {0x0011, "DVD-R", 1},    {0x0012, "DVD-RAM", 1},   {0x0013, "DVD-RW", 1},
    {0x0014, "DVD-RW", 1},   {0x0015, "DVD-R DL", 1}, {0x0016, "DVD-R DL", 1},  {0x001A, "DVD+RW", 1},
    {0x001B, "DVD+R", 1},    {0x002B, "DVD+R DL", 1}, {0x0040, "BD-ROM", 0},    {0x0041, "BD-R", 1},
    {0x0042, "BD-R", 1},     {0x0043, "BD-RE", 1},
};

static const Profile* find_profile(unsigned code) {
  for (size_t i = 0; i < sizeof profiles / sizeof profiles[0]; ++i)
    if (profiles[i].code == code) return &profiles[i];
  return NULL;
}

/* What READ DISC INFORMATION's disc status field says, and "no disc". */
enum { BLANK, APPENDABLE, COMPLETE, OTHER_STATUS, NO_DISC };
static const char* const statusWords[] = {"blank", "appendable", "complete", "in another state", "no disc"};

typedef struct {
  unsigned profile; /* current profile, 0 without a disc */
  int canWrite;     /* the drive offers a recordable profile */
  int status;
  unsigned lastTrack; /* the track written or to write next */
  unsigned long long used, free; /* blocks */
} Medium;

static unsigned be16(const unsigned char* bytes) { return (unsigned)bytes[0] << 8 | bytes[1]; }
static unsigned long be32(const unsigned char* bytes) { return (unsigned long)be16(bytes) << 16 | be16(bytes + 2); }

static void put_be32(unsigned char* bytes, unsigned long value) {
  for (int i = 0; i < 4; ++i) bytes[i] = (unsigned char)(value >> (24 - 8 * i));
}

static int is_no_medium(const SRB_ExecSCSICmd* srb) {
  const unsigned char* sense = srb->SenseArea;
  return srb->SRB_Status == SS_ERR && (sense[0] & 0x7E) == 0x70 && (sense[2] & 0x0F) == 0x02 && sense[12] == 0x3A;
}

/* The Profile List feature (0000h) of a GET CONFIGURATION answer: whether
 * any profile the drive offers is recordable. */
static int offers_recordable_profile(const unsigned char* answer, unsigned long length) {
  if (length < 12 || be16(answer + 8) != 0x0000) return 0;
  const unsigned long listEnd = 12ul + answer[11], end = listEnd < length ? listEnd : length;
  for (unsigned long at = 12; at + 4 <= end; at += 4) {
    const Profile* profile = find_profile(be16(answer + at));
    if (profile != NULL && profile->recordable) return 1;
  }
  return 0;
}

/* ---- Patience ---- */

/* A drive may stay busy for minutes (its own timeouts for a close are that
 * long); past this, it is taken as failed. */
#define BUSY_LIMIT_SECONDS 900.0
#define BUSY_TOLD_AFTER_SECONDS 5.0
#define BUSY_LONGEST_PAUSE 1.0

static void sleep_seconds(double seconds) {
  struct timespec pause = {(time_t)seconds, (long)((seconds - (double)(time_t)seconds) * 1e9)};
  while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
  }
}

void (*aspitool_burn_pause)(double seconds) = sleep_seconds;

/* NOT READY while the drive works on: the command was not carried out and
 * is to be sent again. 04/07: an operation in progress (a close with
 * IMMED, a format); 04/08: a long write in progress (the buffer draining);
 * 04/01: becoming ready. */
static const char* busy_words(const SRB_ExecSCSICmd* srb) {
  const unsigned char* sense = srb->SenseArea;
  if (srb->SRB_Status != SS_ERR || (sense[0] & 0x7E) != 0x70 || (sense[2] & 0x0F) != 0x02 || sense[12] != 0x04)
    return NULL;
  switch (sense[13]) {
    case 0x01: return "becoming ready";
    case 0x07: return "operation in progress";
    case 0x08: return "long write in progress";
    default: return NULL;
  }
}

/* aspitool_execute, sent again while the drive is busy, with growing
 * pauses up to BUSY_LIMIT_SECONDS; says so on err once the wait is long. */
static unsigned char drive_execute(const AspitoolAddress* address, const unsigned char* cdb, unsigned char* buffer,
                                   unsigned int length, unsigned char flags, SRB_ExecSCSICmd* srb, FILE* err) {
  double waited = 0, pause = 0.05;
  int told = 0;
  for (;;) {
    const unsigned char status = aspitool_execute(address, cdb, 10, buffer, length, flags, srb);
    const char* busy = busy_words(srb);
    if (busy == NULL || waited >= BUSY_LIMIT_SECONDS) return status;
    if (!told && waited >= BUSY_TOLD_AFTER_SECONDS) {
      fprintf(err, "waiting for the drive at %u:%u:%u (%s) ...\n", address->adapter, address->target, address->lun,
              busy);
      fflush(err);
      told = 1;
    }
    aspitool_burn_pause(pause);
    waited += pause;
    pause = pause * 2 < BUSY_LONGEST_PAUSE ? pause * 2 : BUSY_LONGEST_PAUSE;
  }
}

static int ask(const AspitoolAddress* address, const char* what, const unsigned char* cdb, unsigned char* answer,
               unsigned int length, FILE* err) {
  SRB_ExecSCSICmd srb;
  if (drive_execute(address, cdb, answer, length, SRB_DIR_IN, &srb, err) == SS_COMP) return ASPITOOL_OK;
  return aspitool_report_failure(err, what, address, &srb);
}

/* Free blocks of the last track (the one to write next) and, for a disc
 * that is not blank, the blocks in use (READ CAPACITY). */
static int read_space(const AspitoolAddress* address, Medium* medium, FILE* err) {
  unsigned char answer[TRACK_INFORMATION_LENGTH];
  if (medium->status == BLANK || medium->status == APPENDABLE) {
    const unsigned char cdb[10] = {0x52, 1, 0, 0, (unsigned char)(medium->lastTrack >> 8), (unsigned char)medium->lastTrack,
                                   0, 0, TRACK_INFORMATION_LENGTH, 0};
    if (ask(address, "READ TRACK INFORMATION", cdb, answer, sizeof answer, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
    medium->free = be32(answer + 16);
  }
  if (medium->status != BLANK) {
    const unsigned char cdb[10] = {0x25};
    if (ask(address, "READ CAPACITY", cdb, answer, 8, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
    medium->used = be32(answer) + 1ull;
  }
  return ASPITOOL_OK;
}

/* What the drive holds: GET CONFIGURATION, READ DISC INFORMATION and the
 * capacity. */
static int read_medium(const AspitoolAddress* address, Medium* medium, FILE* err) {
  static unsigned char configuration[CONFIGURATION_LENGTH];
  unsigned char discInformation[DISC_INFORMATION_LENGTH];
  const unsigned char getConfiguration[10] = {0x46, 0, 0, 0, 0, 0, 0, CONFIGURATION_LENGTH >> 8,
                                              CONFIGURATION_LENGTH & 0xFF, 0};
  memset(medium, 0, sizeof *medium);
  medium->status = NO_DISC;
  if (ask(address, "GET CONFIGURATION", getConfiguration, configuration, CONFIGURATION_LENGTH, err) != ASPITOOL_OK)
    return ASPITOOL_FAILED;
  const unsigned long length = be32(configuration) + 4;
  medium->profile = be16(configuration + 6);
  medium->canWrite = offers_recordable_profile(configuration, length < CONFIGURATION_LENGTH ? length : CONFIGURATION_LENGTH);
  if (medium->profile == 0) return ASPITOOL_OK;
  const unsigned char readDiscInformation[10] = {0x51, 0, 0, 0, 0, 0, 0, 0, DISC_INFORMATION_LENGTH, 0};
  SRB_ExecSCSICmd srb;
  if (drive_execute(address, readDiscInformation, discInformation, sizeof discInformation, SRB_DIR_IN, &srb, err) !=
      SS_COMP) {
    if (is_no_medium(&srb)) return ASPITOOL_OK;
    return aspitool_report_failure(err, "READ DISC INFORMATION", address, &srb);
  }
  medium->status = discInformation[2] & 0x03;
  medium->lastTrack = (unsigned)discInformation[11] << 8 | discInformation[6];
  return read_space(address, medium, err);
}

static const char* profile_name(unsigned code) {
  const Profile* profile = find_profile(code);
  return profile != NULL ? profile->name : "unknown";
}

int aspitool_run_disc(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  AspitoolAddress address;
  Medium medium;
  int result = aspitool_take_address(arguments[0], &address, err);
  if (result == ASPITOOL_OK) result = read_medium(&address, &medium, err);
  if (result != ASPITOOL_OK) return result;
  fprintf(out, "disc in %u:%u:%u\n", address.adapter, address.target, address.lun);
  fprintf(out, "  profile  %s (0x%04X)\n", profile_name(medium.profile), medium.profile);
  fprintf(out, "  status   %s\n", statusWords[medium.status]);
  if (medium.status == NO_DISC) return ASPITOOL_OK;
  fprintf(out, "  used     %llu blocks (%.1f MiB)\n", medium.used, MIB(medium.used));
  fprintf(out, "  free     %llu blocks (%.1f MiB)\n", medium.free, MIB(medium.free));
  return ASPITOOL_OK;
}

/* ---- Holding the drive, signals ---- */

/* Another program that holds the drive makes every request of this one
 * fail, and one that writes meanwhile ruins the disc: a burn or a close
 * holds the drive from its first check to its last command. */
static int hold_drive(const AspitoolAddress* a, FILE* err) {
  if (ASPI_setExclusiveMode(a->adapter, a->target) == 0) return ASPITOOL_OK;
  fprintf(err, "aspitool: the drive at %u:%u:%u is in use by another program, which holds it: nothing was done\n",
          a->adapter, a->target, a->lun);
  return ASPITOOL_FAILED;
}

static void release_drive(const AspitoolAddress* a) { ASPI_unsetExclusiveMode(a->adapter, a->target); }

static volatile sig_atomic_t interrupted;

static void note_interrupt(int signal) { (void)signal, interrupted = 1; }

/* SIGINT, SIGTERM (a stopped service) and SIGHUP (a closed terminal) end
 * the writing between two transfers and the read-back, never a close.
 * SA_RESTART: the library's exchange with the driver goes on undisturbed. */
static void catch_interrupts(int on) {
  static const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = on ? note_interrupt : SIG_DFL;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < sizeof signals / sizeof signals[0]; ++i) sigaction(signals[i], &action, NULL);
}

/* ---- Closing ---- */

static int run_simple(const AspitoolAddress* a, const char* what, const unsigned char* cdb, FILE* err) {
  SRB_ExecSCSICmd srb;
  if (drive_execute(a, cdb, NULL, 0, 0, &srb, err) == SS_COMP) return ASPITOOL_OK;
  return aspitool_report_failure(err, what, a, &srb);
}

/* A command sent with IMMED returns at once; the drive answers NOT READY
 * until it is done, so TEST UNIT READY waits for that (drive_execute). */
static int run_immediate(const AspitoolAddress* a, const char* what, const unsigned char* cdb, FILE* err) {
  const unsigned char testUnitReady[10] = {0x00};
  if (run_simple(a, what, cdb, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  return run_simple(a, what, testUnitReady, err);
}

static int synchronize_cache(const AspitoolAddress* a, FILE* err) {
  const unsigned char cdb[10] = {0x35, 0x02}; /* IMMED */
  return run_immediate(a, "SYNCHRONIZE CACHE", cdb, err);
}

/* CLOSE SESSION's close function on a DVD+R: 010b closes the session and
 * leaves the disc appendable; 101b finalizes it (110b on DVD+R DL), the
 * disc every DVD drive reads. */
static unsigned char close_function(unsigned profile, int finalize) {
  if (!finalize) return 0x02;
  return profile == 0x002B ? 0x06 : 0x05;
}

/* The cache, then the track, then the session: each step needs the one
 * before it done. */
static int finish_disc(const AspitoolAddress* a, unsigned track, unsigned profile, int finalize, FILE* err) {
  const unsigned char closeTrack[10] = {0x5B, 0x01, 0x01, 0, (unsigned char)(track >> 8), (unsigned char)track};
  const unsigned char closeSession[10] = {0x5B, 0x01, close_function(profile, finalize)};
  fprintf(err, "closing the disc (%s) ...\n", finalize ? "finalizing it" : "leaving it appendable");
  fflush(err);
  if (synchronize_cache(a, err) == ASPITOOL_OK && run_immediate(a, "CLOSE TRACK", closeTrack, err) == ASPITOOL_OK &&
      run_immediate(a, "CLOSE SESSION", closeSession, err) == ASPITOOL_OK)
    return ASPITOOL_OK;
  fprintf(err, "aspitool: the disc is not finished: a drive may not read it; aspitool close %u:%u:%u tries again\n",
          a->adapter, a->target, a->lun);
  return ASPITOOL_FAILED;
}

/* ---- write ---- */

typedef struct {
  AspitoolAddress address;
  const char* path;
  FILE* image;
  unsigned long long bytes, blocks; /* the image; the last block padded */
  unsigned long long written;       /* blocks on the disc so far */
  int verify, finalize;
  Medium medium; /* before the burn */
  FILE* err;
  unsigned char* expected; /* one transfer of the image, for the read-back */
} Burn;

/* blocks of the image from block first into buffer, the last one padded
 * with zeros. */
static int read_image(Burn* burn, unsigned long long first, unsigned int blocks, unsigned char* buffer, FILE* err) {
  const size_t wanted = (size_t)blocks * BLOCK;
  memset(buffer, 0, wanted);
  if (fseeko(burn->image, (off_t)(first * BLOCK), SEEK_SET) == 0) {
    const size_t got = fread(buffer, 1, wanted, burn->image);
    if (got == wanted || (!ferror(burn->image) && first * BLOCK + got == burn->bytes)) return ASPITOOL_OK;
  }
  fprintf(err, "aspitool: cannot read \"%s\": %s\n", burn->path, ferror(burn->image) ? strerror(errno) : "it shrank");
  return ASPITOOL_FAILED;
}

/* After a write that did not end in a closed disc: what the disc holds. */
static void tell_disc_left(const Burn* burn, int synchronized, FILE* err) {
  const AspitoolAddress* a = &burn->address;
  Medium medium;
  FILE* quiet = fopen("/dev/null", "w");
  const int known = read_medium(a, &medium, quiet != NULL ? quiet : err) == ASPITOOL_OK;
  if (quiet != NULL) fclose(quiet);
  if (burn->written == 0)
    fprintf(err, "aspitool: nothing was written to the disc");
  else
    fprintf(err, "aspitool: the disc holds the first %llu of the image's %llu blocks in a track left open",
            burn->written, burn->blocks);
  fprintf(err, "; the drive's cache is %s", synchronized == ASPITOOL_OK ? "synchronised" : "NOT synchronised");
  if (known) fprintf(err, "; the drive reports the disc %s", statusWords[medium.status]);
  if (burn->written > 0) fprintf(err, "; aspitool close %u:%u:%u finishes it", a->adapter, a->target, a->lun);
  fputs("\n", err);
}

static int write_transfer(Burn* burn, unsigned int blocks, unsigned char* buffer, FILE* err) {
  unsigned char cdb[10] = {0x2A, 0, 0, 0, 0, 0, 0, (unsigned char)(blocks >> 8), (unsigned char)blocks, 0};
  put_be32(cdb + 2, (unsigned long)burn->written);
  SRB_ExecSCSICmd srb;
  if (read_image(burn, burn->written, blocks, buffer, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  if (drive_execute(&burn->address, cdb, buffer, blocks * BLOCK, SRB_DIR_OUT, &srb, err) == SS_COMP) {
    burn->written += blocks;
    return ASPITOOL_OK;
  }
  fprintf(err, "aspitool: WRITE(10) of %u:%u:%u at LBA %llu failed: ", burn->address.adapter, burn->address.target,
          burn->address.lun, burn->written);
  aspitool_describe_failure(err, &srb);
  return ASPITOOL_FAILED;
}

static int write_blocks(Burn* burn, FILE* err) {
  const unsigned int chunk = aspitool_blocks_per_request(burn->address.adapter);
  unsigned char* buffer = malloc((size_t)chunk * BLOCK);
  if (buffer == NULL) {
    fprintf(err, "aspitool: out of memory\n");
    return ASPITOOL_FAILED;
  }
  AspitoolProgress progress;
  aspitool_progress_start(&progress, err, "writing", burn->blocks);
  fprintf(err, "writing %llu blocks (%.1f MiB) onto the DVD+R in %u:%u:%u\n", burn->blocks, MIB(burn->blocks),
          burn->address.adapter, burn->address.target, burn->address.lun);
  fflush(err);
  int result = ASPITOOL_OK;
  while (burn->written < burn->blocks && result == ASPITOOL_OK && !interrupted) {
    const unsigned long long left = burn->blocks - burn->written;
    result = write_transfer(burn, left < chunk ? (unsigned int)left : chunk, buffer, err);
    if (result != ASPITOOL_OK) aspitool_progress_end(&progress);
    aspitool_progress_update(&progress, burn->written);
  }
  aspitool_progress_end(&progress);
  free(buffer);
  if (burn->written == burn->blocks) return ASPITOOL_OK; /* an interruption now changes nothing */
  /* Whatever happened, what was written reaches the disc. */
  const int synchronized = synchronize_cache(&burn->address, err);
  if (result == ASPITOOL_OK)
    fprintf(err, "aspitool: interrupted: writing stopped after %llu of %llu blocks\n", burn->written, burn->blocks);
  tell_disc_left(burn, synchronized, err);
  return ASPITOOL_FAILED;
}

static int compare_with_image(void* context, const unsigned char* data, unsigned int blocks,
                              unsigned long long lba) {
  Burn* burn = context;
  if (interrupted) {
    fprintf(burn->err, "aspitool: interrupted: the disc is finished; the read-back stopped at block %llu\n", lba);
    return ASPITOOL_FAILED;
  }
  if (read_image(burn, lba, blocks, burn->expected, burn->err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  for (unsigned int block = 0; block < blocks; ++block) {
    if (memcmp(burn->expected + (size_t)block * BLOCK, data + (size_t)block * BLOCK, BLOCK) != 0) {
      fprintf(burn->err, "aspitool: the disc is finished but does not hold the image: block %llu differs\n",
              lba + block);
      return ASPITOOL_FAILED;
    }
  }
  return ASPITOOL_OK;
}

/* Reads the disc back and compares it with the image. */
static int verify(Burn* burn) {
  burn->expected = malloc((size_t)aspitool_blocks_per_request(burn->address.adapter) * BLOCK);
  int result = ASPITOOL_FAILED;
  if (burn->expected == NULL)
    fprintf(burn->err, "aspitool: out of memory\n");
  else
    result = aspitool_read_blocks(&burn->address, 0, burn->blocks, "verifying", compare_with_image, burn, burn->err);
  free(burn->expected);
  return result;
}

/* The checks before a burn: a writer, a blank DVD+R, room for the image.
 * The medium is named first, what aspitool can do with it, then its state. */
static int check_medium(Burn* burn, FILE* err) {
  const AspitoolAddress* a = &burn->address;
  Medium* medium = &burn->medium;
  if (read_medium(a, medium, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  if (!medium->canWrite)
    fprintf(err, "aspitool: the drive at %u:%u:%u cannot write discs\n", a->adapter, a->target, a->lun);
  else if (medium->status == NO_DISC)
    fprintf(err, "aspitool: there is no disc in the drive at %u:%u:%u\n", a->adapter, a->target, a->lun);
  else if ((medium->profile != 0x001B && medium->profile != 0x002B) || medium->status != BLANK)
    fprintf(err, "aspitool: the disc in %u:%u:%u is a %s: aspitool burns blank DVD+R discs only, and this one is %s%s\n",
            a->adapter, a->target, a->lun, profile_name(medium->profile), statusWords[medium->status],
            medium->status == APPENDABLE ? " (aspitool close finishes a disc whose burn was cut short)" : "");
  else if (burn->blocks > medium->free)
    fprintf(err, "aspitool: \"%s\" needs %llu blocks (%.1f MiB); the disc in %u:%u:%u has room for %llu (%.1f MiB)\n",
            burn->path, burn->blocks, MIB(burn->blocks), a->adapter, a->target, a->lun, medium->free,
            MIB(medium->free));
  else
    return ASPITOOL_OK;
  return ASPITOOL_FAILED;
}

static void tell_burned(const Burn* burn, double seconds, FILE* out) {
  fprintf(out, "burned \"%s\" onto the DVD+R in %u:%u:%u (%s): %llu blocks (%.1f MiB) in %.2f s (%.1f MiB/s); %s\n",
          burn->path, burn->address.adapter, burn->address.target, burn->address.lun,
          burn->finalize ? "finalized" : "left appendable", burn->blocks, MIB(burn->blocks), seconds,
          seconds > 0 ? MIB(burn->blocks) / seconds : 0.0,
          burn->verify ? "verified: the disc reads back equal to the image" : "not verified (--no-verify)");
}

static int burn_image(Burn* burn, FILE* out, FILE* err) {
  if (check_medium(burn, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  if (interrupted) {
    fprintf(err, "aspitool: interrupted before writing: the disc is still blank\n");
    return ASPITOOL_FAILED;
  }
  if (burn->bytes % BLOCK != 0)
    fprintf(err, "aspitool: \"%s\" is %llu bytes, not a whole number of %u-byte blocks: its last block is padded "
            "with %llu zero bytes\n", burn->path, burn->bytes, BLOCK, BLOCK - burn->bytes % BLOCK);
  const double start = aspitool_now();
  if (write_blocks(burn, err) != ASPITOOL_OK ||
      finish_disc(&burn->address, burn->medium.lastTrack, burn->medium.profile, burn->finalize, err) != ASPITOOL_OK)
    return ASPITOOL_FAILED;
  const double seconds = aspitool_now() - start;
  if (interrupted && burn->verify) {
    fprintf(err, "aspitool: interrupted: the disc is finished and holds the image, but it was not read back\n");
    return ASPITOOL_FAILED;
  }
  if (burn->verify && verify(burn) != ASPITOOL_OK) return ASPITOOL_FAILED;
  tell_burned(burn, seconds, out);
  return ASPITOOL_OK;
}

/* The options, the drive's address and the image path; 0 when they do not fit. */
static int take_write_arguments(Burn* burn, char** arguments, int count, const char* positional[2]) {
  int positionals = 0;
  for (int i = 0; i < count; ++i) {
    if (strcmp(arguments[i], "--no-verify") == 0)
      burn->verify = 0;
    else if (strcmp(arguments[i], "--multi") == 0)
      burn->finalize = 0;
    else if (positionals < 2 && (arguments[i][0] != '-' || arguments[i][1] == 0))
      positional[positionals++] = arguments[i];
    else
      return 0;
  }
  return positionals == 2;
}

static int open_image(Burn* burn, FILE* err) {
  struct stat status;
  burn->image = fopen(burn->path, "rb");
  const int opened = burn->image != NULL && fstat(fileno(burn->image), &status) == 0;
  if (opened && S_ISREG(status.st_mode)) {
    burn->bytes = (unsigned long long)status.st_size;
    burn->blocks = (burn->bytes + BLOCK - 1) / BLOCK;
    if (burn->blocks > 0) return ASPITOOL_OK;
    fprintf(err, "aspitool: the image \"%s\" is empty: nothing to burn\n", burn->path);
  } else {
    fprintf(err, "aspitool: cannot read the image \"%s\": %s\n", burn->path,
            opened ? "not a regular file" : strerror(errno));
  }
  if (burn->image != NULL) fclose(burn->image);
  return ASPITOOL_FAILED;
}

int aspitool_run_write(char** arguments, int count, FILE* out, FILE* err) {
  Burn burn;
  memset(&burn, 0, sizeof burn);
  burn.verify = burn.finalize = 1;
  burn.err = err;
  const char* positional[2];
  if (!take_write_arguments(&burn, arguments, count, positional)) {
    fprintf(err, "usage: aspitool write [--no-verify] [--multi] A:T:L IMAGE\n");
    return ASPITOOL_USAGE;
  }
  burn.path = positional[1];
  int result = aspitool_take_address(positional[0], &burn.address, err);
  if (result != ASPITOOL_OK) return result;
  if (open_image(&burn, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  result = hold_drive(&burn.address, err);
  if (result == ASPITOOL_OK) {
    /* From here on a signal does not end the program: before the writing
     * it keeps the disc blank, during it ends the writing (write_blocks). */
    interrupted = 0;
    catch_interrupts(1);
    result = burn_image(&burn, out, err);
    catch_interrupts(0);
    release_drive(&burn.address);
  }
  fclose(burn.image);
  return result;
}

/* ---- close ---- */

static int close_held_disc(const AspitoolAddress* a, FILE* out, FILE* err) {
  Medium medium;
  if (read_medium(a, &medium, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  if (!medium.canWrite || medium.status == NO_DISC) {
    fprintf(err, "aspitool: the drive at %u:%u:%u %s\n", a->adapter, a->target, a->lun,
            medium.canWrite ? "holds no disc" : "cannot write discs");
    return ASPITOOL_FAILED;
  }
  if (medium.status == COMPLETE) {
    fprintf(out, "the %s in %u:%u:%u is complete already: nothing to close\n", profile_name(medium.profile),
            a->adapter, a->target, a->lun);
    return ASPITOOL_OK;
  }
  if (finish_disc(a, medium.lastTrack, medium.profile, 1, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  if (read_medium(a, &medium, err) != ASPITOOL_OK) return ASPITOOL_FAILED;
  fprintf(out, "closed the disc in %u:%u:%u: the drive reports it %s, %llu blocks (%.1f MiB) used\n", a->adapter,
          a->target, a->lun, statusWords[medium.status], medium.used, MIB(medium.used));
  return ASPITOOL_OK;
}

int aspitool_run_close(char** arguments, int count, FILE* out, FILE* err) {
  (void)count;
  AspitoolAddress address;
  int result = aspitool_take_address(arguments[0], &address, err);
  if (result == ASPITOOL_OK) result = hold_drive(&address, err);
  if (result != ASPITOOL_OK) return result;
  catch_interrupts(1); /* a close runs to its end */
  result = close_held_disc(&address, out, err);
  catch_interrupts(0);
  release_drive(&address);
  return result;
}
