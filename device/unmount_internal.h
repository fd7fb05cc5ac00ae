// Counting a drive's mounts and unmounting its volumes before an exclusive
// open.
#pragma once

// Lines of /etc/mtab whose device field (or that field's symbolic-link
// target text) begins with pszPath; 1 when /etc/mtab cannot be read.
int SCSI_CountMounts(char const* pszPath);

// Runs umount once per mount, then pumount, the HAL volume unmount,
// gnome-mount and the media manager, each only while the drive still
// counts as mounted. Nothing is reported; the open that follows decides.
void SCSI_UnmountVolumes(char const* pszPath);
