# The system tests' job in the guest: runs every scenario program with a
# time limit, counts "ok" and "not ok" lines and closes with "N passed, M
# failed". A program that dies or hangs without a "not ok" line counts as
# one failure more.
passed=0
failed=0
for program in /opt/kavo/bin/scenario-*; do
  name=${program##*/}
  echo "# $name"
  timeout 180 "$program" > /tmp/out 2>&1
  status=$?
  cat /tmp/out
  not_ok=$(grep -c '^not ok ' /tmp/out)
  if [ "$status" -ne 0 ] && [ "$not_ok" -eq 0 ]; then
    echo "not ok - $name: exited with status $status"
    not_ok=1
  fi
  passed=$((passed + $(grep -c '^ok ' /tmp/out)))
  failed=$((failed + not_ok))
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
