# The system tests' job in the guest: runs every scenario program, each with
# a time limit, counts its "ok" and "not ok" lines, and closes with the line
# "N passed, M failed". A program that dies or hangs counts as one failure
# more. Exits 1 when anything failed.
seen=""
passed=0
failed=0
# The machine's own checks first: when they fail, the others mean little.
for program in /opt/kavo/bin/scenario-machine /opt/kavo/bin/scenario-*; do
  [ -x "$program" ] || continue
  case " $seen " in *" $program "*) continue ;; esac
  seen="$seen $program"
  name=${program##*/}
  echo "# $name"
  timeout 180 "$program" > /tmp/out 2>&1
  status=$?
  cat /tmp/out
  ok=$(grep -c '^ok ' /tmp/out)
  not_ok=$(grep -c '^not ok ' /tmp/out)
  if [ "$status" -ne 0 ] && [ "$not_ok" -eq 0 ]; then
    echo "not ok - $name: exited with status $status"
    not_ok=1
  fi
  passed=$((passed + ok))
  failed=$((failed + not_ok))
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
