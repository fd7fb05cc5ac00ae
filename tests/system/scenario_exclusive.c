/* Exclusive mode on drives whose disc is really mounted: taking the drive
 * unmounts it, keeps every other exclusive opener out, leaves commands
 * working, nests, and releasing gives the drive back. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

/* Bound weakly, so that a library without exclusive mode is reported as
 * such by a failing check instead of failing to load. */
#pragma weak ASPI_setExclusiveMode
#pragma weak ASPI_unsetExclusiveMode

static int mounted(const char* block) {
  char line[512];
  size_t length = strlen(block);
  int found = 0;
  FILE* mounts = fopen("/proc/mounts", "r");
  if (!mounts) return -1;
  while (fgets(line, sizeof line, mounts))
    if (strncmp(line, block, length) == 0 && line[length] == ' ') found = 1;
  fclose(mounts);
  return found;
}

/* 1 when the generic node can be opened right now, with extra_flags. */
static int open_possible(const char* generic, int extra_flags, int* error) {
  int fd = open(generic, O_RDWR | O_NONBLOCK | extra_flags);
  *error = fd < 0 ? errno : 0;
  if (fd < 0) return 0;
  close(fd);
  return 1;
}

static void check_drive(const Drive* drive, const Disc* disc, const char* mount_point) {
  unsigned char got[2048 * 4], expected[2048 * 4];
  int adapter = drive->host, error = 0, possible;
  char what[160];

  mkdir(mount_point, 0755);
  snprintf(what, sizeof what, "%s is mounted on %s", drive->block, mount_point);
  if (!check(mount(drive->block, mount_point, "iso9660", MS_RDONLY, NULL) == 0 && mounted(drive->block) == 1,
             what, "mount failed: %s", strerror(errno)))
    return;

  snprintf(what, sizeof what, "taking %s (adapter %d, target %d) succeeds", drive->generic, adapter, drive->target);
  check(ASPI_setExclusiveMode(adapter, drive->target) == 0, what, "failed");
  snprintf(what, sizeof what, "taking it unmounted %s", drive->block);
  if (!check(mounted(drive->block) == 0, what, "still mounted")) umount(mount_point);

  snprintf(what, sizeof what, "another exclusive open of %s fails while it is held", drive->generic);
  possible = open_possible(drive->generic, O_EXCL, &error);
  check(!possible && error == EBUSY, what, "open %s, error %d (%s)", possible ? "succeeded" : "failed", error,
        strerror(error));

  /* The generic driver turns away even plain opens while an exclusive
   * holder has the node; a shared descriptor would only stop other
   * exclusive openers. */
  snprintf(what, sizeof what, "even a plain open of %s is refused while it is held", drive->generic);
  possible = open_possible(drive->generic, 0, &error);
  check(!possible && error == EBUSY, what, "open %s, error %d (%s)", possible ? "succeeded" : "failed", error,
        strerror(error));

  snprintf(what, sizeof what, "commands to the held drive %s still work", drive->generic);
  settle(drive);
  check(aspi_read10(drive, disc->data_lba + 40, 4, got) == SS_COMP && disc_sectors(disc->data_lba + 40, 4, expected) &&
            memcmp(got, expected, sizeof got) == 0,
        what, "READ(10) failed or returned other data");

  check(ASPI_setExclusiveMode(adapter, drive->target) == 0 && ASPI_unsetExclusiveMode(adapter, drive->target) == 0,
        "a nested hold is taken and released", "failed");
  snprintf(what, sizeof what, "%s stays held until the last release", drive->generic);
  possible = open_possible(drive->generic, O_EXCL, &error);
  check(!possible && aspi_read10(drive, disc->readme_lba, 1, got) == SS_COMP, what,
        "exclusive open %s, or READ failed", possible ? "possible" : "refused");

  check(ASPI_unsetExclusiveMode(adapter, drive->target) == 0, "the last hold is released", "failed");
  snprintf(what, sizeof what, "%s can be opened exclusively again", drive->generic);
  possible = open_possible(drive->generic, O_EXCL, &error);
  check(possible, what, "error %d (%s)", error, strerror(error));
  check(ASPI_unsetExclusiveMode(adapter, drive->target) == -1, "releasing a drive not held fails", "it succeeded");
  snprintf(what, sizeof what, "commands to %s work after the release", drive->generic);
  check(aspi_read10(drive, disc->readme_lba, 1, got) == SS_COMP && disc_sectors(disc->readme_lba, 1, expected) &&
            memcmp(got, expected, 2048) == 0,
        what, "READ(10) failed or returned other data");
}

int main(void) {
  Machine vm;
  find_machine(&vm);
  Disc disc;

  check_group("exclusive");
  if (!check(vm.scsi && vm.atapi && vm.scsi->block[0] && vm.atapi->block[0] && load_disc(&disc),
             "the machine has its drives, their block nodes and the disc", "%d drives", vm.count))
    return check_finish();
  if (!check(ASPI_setExclusiveMode != NULL && ASPI_unsetExclusiveMode != NULL,
             "the library exports exclusive mode", "it does not"))
    return check_finish();
  GetASPI32SupportInfo();
  check(ASPI_setExclusiveMode(vm.scsi->host, 5) == -1, "taking an address without a drive fails", "it succeeded");
  check_drive(vm.scsi, &disc, "/mnt/scsi");
  check_drive(vm.atapi, &disc, "/mnt/atapi");
  return check_finish();
}
