# The comparison's job in the guest: kavo-bench-compare with the two builds
# (copied in as programs) on the CD drive of the virtio SCSI host, reading
# the disc's data file.
. /opt/kavo/disc.env
for device in /sys/class/scsi_generic/sg*; do
  address=$(basename "$(readlink "$device/device")")   # host:channel:target:lun
  host=${address%%:*}
  if [ "$(cat /sys/class/scsi_host/host$host/proc_name)" = virtio_scsi ] && [ "${address#*:*:}" = "0:0" ]; then
    # Without IDE adapters the ASPI adapter number is the Linux host number.
    exec kavo-bench-compare /opt/kavo/bin/libKavoASPO.so /opt/kavo/bin/libKavoASPN.so "$host" "$DATA_LBA" \
      $((DATA_SIZE / 2048))
  fi
done
echo "no CD drive on the virtio SCSI host"
exit 1
