#!/usr/bin/env bash
# The set-up scripts' own checks: the 32-bit probe, binfmt_misc entry matching, qemu versions, and the prefix
# script's refusals. Runs on the build machine (no Wine needed, but for the probe, 32-bit code must start).
set -uo pipefail
scripts="$(cd "$(dirname "$0")/../scripts" && pwd)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source "$scripts/i386.sh"

passed=0
failed=0
check() { # check WHAT COMMAND...: the command must succeed
  local what=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $what" >&2
  fi
}
refuse() { # refuse WHAT COMMAND...: the command must fail
  local what=$1
  shift
  if "$@"; then
    failed=$((failed + 1))
    echo "FAILED (it succeeded): $what" >&2
  else
    passed=$((passed + 1))
  fi
}
contains() { [[ $1 == *"$2"* ]] || { echo "  not found: \"$2\" in: $1" >&2 && false; }; }

# The probe: 96 bytes, a 32-bit x86 executable with the padding byte asked for, that exits with 42.
i386_write_probe "$work/probe00" 00
i386_write_probe "$work/probe01" 01
check "the probe is 96 bytes" [ "$(stat -c %s "$work/probe00")" = 96 ]
check "the probe's ELF header" [ "$(od -An -tx1 -N 20 "$work/probe00" | tr -d ' \n')" = \
  7f454c4601010100000000000000000002000300 ]
check "the padding byte" [ "$(od -An -tx1 -j 15 -N 1 "$work/probe01" | tr -d ' \n')" = 01 ]
check "the probe runs and exits with 42" i386_run_probe 00
check "the probe with the padding byte runs too" i386_run_probe 01

# binfmt_misc entries, in a directory laid out as /proc/sys/fs/binfmt_misc.
fake="$work/binfmt"
mkdir "$fake"
echo enabled >"$fake/status"
: >"$fake/register"
magic=$(printf '%b' "$SMK_I386_MAGIC" | od -An -v -tx1 | tr -d ' \n')
mask=$(printf '%b' "$SMK_I386_MASK" | od -An -v -tx1 | tr -d ' \n')
entry() { # entry NAME STATE INTERPRETER MAGIC MASK
  printf '%s\ninterpreter %s\nflags: F\noffset 0\nmagic %s\n' "$2" "$3" "$4" >"$fake/$1"
  [ -z "$5" ] || echo "mask $5" >>"$fake/$1"
}
entry i386 enabled /usr/bin/qemu-i386 "$magic" "$mask"
check "an i386 entry takes an ordinary 32-bit program" binfmt_takes "$fake/i386" "$work/probe00"
refuse "an i386 entry leaves the probe with the padding byte to the kernel" binfmt_takes "$fake/i386" "$work/probe01"
entry off disabled /usr/bin/qemu-i386 "$magic" "$mask"
refuse "a disabled entry takes nothing" binfmt_takes "$fake/off" "$work/probe00"
entry arm enabled /usr/bin/qemu-arm 7f454c4601010100000000000000000002002800 "$mask"
refuse "an ARM entry takes no x86 program" binfmt_takes "$fake/arm" "$work/probe00"
entry nomask enabled /usr/bin/qemu-i386-old 7f454c4601010100000000000000000002000300 ""
check "an entry without a mask takes the bytes it names" binfmt_takes "$fake/nomask" "$work/probe00"
refuse "and no others" binfmt_takes "$fake/nomask" "$work/probe01"
rm "$fake/nomask"
printf 'enabled\ninterpreter /usr/bin/x\nflags: \nextension .exe\n' >"$fake/ext"
refuse "an entry by extension takes nothing" binfmt_takes "$fake/ext" "$work/probe00"
check "the entries that take 32-bit programs" [ "$(SMK_BINFMT_DIR=$fake binfmt_entries | tr '\n' ' ')" = \
  "$fake/i386 " ]
check "the interpreter of an entry" [ "$(binfmt_interpreter "$fake/i386")" = /usr/bin/qemu-i386 ]
echo disabled >"$fake/status"
check "binfmt_misc switched off takes nothing" [ -z "$(SMK_BINFMT_DIR=$fake binfmt_entries)" ]

# qemu versions, from what the program says of itself.
fakeqemu() { printf '#!/bin/sh\necho "%s"\n' "$2" >"$work/$1" && chmod +x "$work/$1"; }
fakeqemu qemu7 "qemu-i386 version 7.2.15 (Debian 1:7.2+dfsg-7+deb12u18)"
fakeqemu qemu10 "qemu-i386 version 10.0.2 (Debian 1:10.0.2+ds-2+deb13u1~bpo12+1)"
fakeqemu other "box86 v0.3.2"
check "qemu 7's version" [ "$(qemu_version "$work/qemu7")" = 7.2.15 ]
refuse "qemu 7 is slow" qemu_is_fast "$work/qemu7"
check "qemu 10 is fast" qemu_is_fast "$work/qemu10"
check "another program has no qemu version" [ -z "$(qemu_version "$work/other")" ]
refuse "a missing program is no fast qemu" qemu_is_fast "$work/missing"

# SMK_EMULATE_I386.
check "SMK_EMULATE_I386=1 forces emulation" env SMK_EMULATE_I386=1 bash -c "source '$scripts/i386.sh'; i386_emulation_forced"
refuse "SMK_EMULATE_I386=0 does not" env SMK_EMULATE_I386=0 bash -c "source '$scripts/i386.sh'; i386_emulation_forced"
refuse "SMK_EMULATE_I386 unset does not" env -u SMK_EMULATE_I386 bash -c "source '$scripts/i386.sh'; i386_emulation_forced"
refuse "SMK_EMULATE_I386=maybe is refused" env SMK_EMULATE_I386=maybe bash -c "source '$scripts/i386.sh'; i386_emulation_forced 2>/dev/null"

# The prefix script when wineboot makes nothing: a message that says so and what to do, and no half prefix left.
bin="$work/bin"
mkdir "$bin"
printf '#!/bin/sh\necho "wineboot: cannot start (a test double)" >&2\nexit 1\n' >"$bin/wineboot"
printf '#!/bin/sh\nexit 0\n' >"$bin/wineserver"
printf '#!/bin/sh\necho "wine: Exec format error (a test double)" >&2\nexit 126\n' >"$bin/wine"
chmod +x "$bin"/*
prefix="$work/prefix"
output=$(env -u SMK_EMULATE_I386 PATH="$bin:$PATH" "$scripts/wine-prefix" "$prefix" 2>&1)
status=$?
check "wine-prefix fails when wineboot makes no prefix" [ "$status" = 1 ]
check "it says that wineboot made nothing" contains "$output" "wine-prefix: wineboot -i did not make $prefix"
check "it shows what wineboot printed" contains "$output" "  wineboot: cannot start (a test double)"
check "it shows what Wine says" contains "$output" "Wine itself says: wine: Exec format error (a test double)"
check "it says what to do" contains "$output" "Check that Wine starts"
check "no half prefix is left" [ ! -e "$prefix" ]

# The prefix script refuses a forced emulated path that is not in place.
if [ "$(i386_mode)" = native ]; then
  output=$(SMK_EMULATE_I386=1 PATH="$bin:$PATH" "$scripts/wine-prefix" "$prefix" 2>&1)
  status=$?
  check "wine-prefix refuses SMK_EMULATE_I386=1 on the native path" [ "$status" = 1 ]
  check "it says to run the bootstrap" contains "$output" "run scripts/bootstrap with the same SMK_EMULATE_I386 first"
fi

echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
