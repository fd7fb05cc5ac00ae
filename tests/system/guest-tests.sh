# In the guest: each scenario, 32-bit and scripts then 64-bit, timed; one that dies or hangs without a
# "not ok" line gets one.
for program in /opt/kavo/bin/scenario-* /opt/kavo/bin64/scenario-*; do
  [ -e "$program" ] || continue
  name=${program#/opt/kavo/}
  echo "# $name"
  timeout 180 "$program" > /tmp/out 2>&1
  status=$?
  cat /tmp/out
  [ $status -eq 0 ] || grep -q '^not ok ' /tmp/out || echo "not ok - $name: exited with status $status"
done
