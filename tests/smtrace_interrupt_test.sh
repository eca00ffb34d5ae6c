#!/usr/bin/env bash
# smtrace stopped by Ctrl+C while the program it started runs: SIGINT to its Wine process, as a terminal sends it, comes
# to smtrace's console handler, which puts the user's DEBUGSM.INI back at once; smtrace exits with 130.
#
# Usage: smtrace_interrupt_test.sh BUILD_DIR. Runs in the stand-in's prefix, whose lock the test holds; the program
# smtrace starts is a test program in its role wait-event, which runs until the test ends it.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
windows=$build/wineprefix/drive_c/windows
settings=$windows/DEBUGSM.INI
work=$(mktemp -d)
event=smtrace_interrupt_test_$$
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
# The process whose command line holds `pattern`, if any.
process() { pgrep -f -- "$1" | head -n 1 || true; }
cleanup() {
  local pid
  for pattern in "smtrace.exe -- .*$event" "wait-event:$event"; do
    pid=$(process "$pattern")
    [ -z "$pid" ] || kill "$pid" 2>/dev/null || true
  done
  rm -f "$settings" "$settings.smtrace-saved" "$settings.smtrace-none"
  rm -rf "$work"
}
trap cleanup EXIT

rm -f "$settings.smtrace-saved" "$settings.smtrace-none"
printf '; the user'"'"'s own\r\n[Debug]\r\nTrace=0\r\nWarning=0\r\n' >"$settings"
cp "$settings" "$work/original"
"$build/wine-run" "$build/bin/smtrace.exe" -- "$build/bin/trace_test.exe" "--smk-child=wait-event:$event" \
  >"$work/out" 2>"$work/err" &
job=$!

# Running: tracing switched on, the user's file kept, the program started.
for _ in $(seq 200); do
  if grep -q 'Trace=1' "$settings" && [ -f "$settings.smtrace-saved" ] && [ -n "$(process "wait-event:$event")" ]; then
    break
  fi
  sleep 0.1
done
grep -q 'Trace=1' "$settings" || fail "smtrace did not switch tracing on: $(cat "$settings")"
[ -n "$(process "wait-event:$event")" ] || fail "the program did not start: $(cat "$work/err")"
smtrace=$(process "smtrace.exe -- .*$event")
[ -n "$smtrace" ] || fail "no smtrace process"

kill -INT "$smtrace"
status=0
wait "$job" || status=$?
[ $status = 130 ] || fail "smtrace exited with $status, expected 130: $(cat "$work/err")"
cmp -s "$settings" "$work/original" || fail "DEBUGSM.INI is not the user's again: $(cat "$settings")"
[ ! -e "$settings.smtrace-saved" ] || fail "the kept copy is still there"
[ -n "$(process "wait-event:$event")" ] || fail "smtrace ended the program it started"
echo "smtrace_interrupt_test: Ctrl+C put DEBUGSM.INI back, exit code 130"
