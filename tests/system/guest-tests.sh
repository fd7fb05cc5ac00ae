# In the guest: every scenario program with a time limit, the 32-bit ones
# and scripts (/opt/kavo/bin), then the 64-bit ones (/opt/kavo/bin64); one
# that dies or hangs without a "not ok" line gets one. tests/system/run
# counts the lines.
for program in /opt/kavo/bin/scenario-* /opt/kavo/bin64/scenario-*; do
  [ -e "$program" ] || continue
  name=${program#/opt/kavo/}
  echo "# $name"
  timeout 180 "$program" > /tmp/out 2>&1
  status=$?
  cat /tmp/out
  [ $status -eq 0 ] || grep -q '^not ok ' /tmp/out || echo "not ok - $name: exited with status $status"
done
