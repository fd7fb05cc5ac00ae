/* The test machine itself, as the other scenarios take it to be: its
 * drives, their hosts, and the disc readable through the kernel directly.
 * A failure here points at the VM, not at the library. */
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "support.h"

static int emulated_host(const char* generic) {
  int flag = -1, fd = open(generic, O_RDWR | O_NONBLOCK);
  if (fd < 0) return -1;
  if (ioctl(fd, SG_EMULATED_HOST, &flag) < 0) flag = -1;
  close(fd);
  return flag;
}

static void check_direct_read(const Drive* drive, const Disc* disc) {
  unsigned char cdb[10], got[8 * 2048], expected[8 * 2048];
  cdb_read10(cdb, disc->data_lba, 8);
  memset(got, 0, sizeof got);
  check(sgio_in(drive->generic, cdb, 10, got, sizeof got) == 0 && disc_sectors(disc->data_lba, 8, expected) &&
            memcmp(got, expected, sizeof got) == 0,
        drive->host_driver[0] == 'v' ? "the SCSI drive reads the disc through SG_IO"
                                     : "the ATAPI drive reads the disc through SG_IO",
        "data differs or the command failed");
}

int main(void) {
  Machine vm;
  find_machine(&vm);
  char link[64];
  ssize_t length;
  Disc disc;

  check_group("machine");
  if (!check(vm.count == 3 && vm.scsi && vm.empty && vm.atapi,
             "two CD drives on virtio_scsi, one DVD drive on ata_piix", "%d generic nodes", vm.count))
    return check_finish();
  check(vm.scsi->type == 5 && vm.empty->type == 5 && vm.atapi->type == 5 && vm.scsi->block[0] &&
            vm.empty->block[0] && vm.atapi->block[0],
        "all three are CD/DVD drives with block nodes", "types %d %d %d", vm.scsi->type, vm.empty->type,
        vm.atapi->type);
  check(emulated_host(vm.scsi->generic) == 0 && emulated_host(vm.atapi->generic) == 1,
        "the generic driver calls virtio_scsi real and ata_piix emulated", "flags %d and %d",
        emulated_host(vm.scsi->generic), emulated_host(vm.atapi->generic));
  check(load_disc(&disc) && disc.sectors > disc.data_lba + disc.data_size / 2048, "the disc is described",
        "disc.env unreadable");
  check_direct_read(vm.scsi, &disc);
  check_direct_read(vm.atapi, &disc);
  length = readlink("/etc/mtab", link, sizeof link - 1);
  check(length > 0 && strncmp(link, "/proc/mounts", (size_t)length) == 0 && access("/bin/umount", X_OK) == 0,
        "/etc/mtab lists the mounts and umount is there", "mtab link wrong or no umount");
  return check_finish();
}
