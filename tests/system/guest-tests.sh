# In the guest: every scenario program with a time limit; one that dies or
# hangs without a "not ok" line gets one. tests/system/run counts the lines.
for program in /opt/kavo/bin/scenario-*; do
  echo "# ${program##*/}"
  timeout 180 "$program" > /tmp/out 2>&1
  status=$?
  cat /tmp/out
  [ $status -eq 0 ] || grep -q '^not ok ' /tmp/out || echo "not ok - ${program##*/}: exited with status $status"
done
