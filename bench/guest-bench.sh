# The benchmark's job in the guest: kavo-bench on the CD drive of the virtio
# SCSI host (target 0), reading the disc's data file, after the discovery
# times in a fresh process.
. /opt/kavo/disc.env
kavo-bench-discovery || exit 1
for device in /sys/class/scsi_generic/sg*; do
  address=$(basename "$(readlink "$device/device")")   # host:channel:target:lun
  host=${address%%:*}
  if [ "$(cat /sys/class/scsi_host/host$host/proc_name)" = virtio_scsi ] && [ "${address#*:*:}" = "0:0" ]; then
    # Without IDE adapters the ASPI adapter number is the Linux host number.
    exec kavo-bench "/dev/${device##*/}" "$host" 0 "$DATA_LBA" $((DATA_SIZE / 2048))
  fi
done
echo "no CD drive on the virtio SCSI host"
exit 1
