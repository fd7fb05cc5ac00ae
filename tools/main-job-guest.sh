# The main job as the VM shows it: the drives the library finds through
# ASPI, then the test disc as an application reads it through ASPI.
. /opt/kavo/disc.env
echo
echo "== aspitool scan: the host adapters and drives the library reaches through ASPI"
aspitool scan
status=$?
echo
exit $status
