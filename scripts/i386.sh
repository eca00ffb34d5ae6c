# How this machine runs 32-bit x86 programs (Wine's loader is one): natively, or emulated by qemu-user through
# binfmt_misc. Sourced by scripts/bootstrap, scripts/wine-prefix and scripts/test.
#
# SMK_EMULATE_I386=1 makes scripts/bootstrap register the emulator even where the kernel runs 32-bit code itself, so
# that the emulated path can be tried on any machine; the next scripts/bootstrap without it takes the registration
# away again on such a machine. The registration is machine-wide: every 32-bit program started while it is in place
# runs emulated.

SMK_BINFMT_DIR=${SMK_BINFMT_DIR:-/proc/sys/fs/binfmt_misc}
SMK_BINFMT_NAME=smk-qemu-i386
# qemu-user before 10 ignores the address reservations that Wine makes with MAP_FIXED_NOREPLACE, and every Wine
# process then spends about a minute looping through mmap and munmap.
SMK_QEMU_MIN_MAJOR=10
SMK_QEMU=/usr/bin/qemu-i386
# binfmt_misc pattern of a 32-bit little-endian x86 executable or shared object (ELF header up to e_machine), with
# the mask Debian's qemu packages use: OS ABI 0 to 3, ABI version and padding bytes 0, type 2 or 3.
SMK_I386_MAGIC='\x7f\x45\x4c\x46\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
SMK_I386_MASK='\xff\xff\xff\xff\xff\xfe\xfe\xfc\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

smk_as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# i386_write_probe FILE PAD: a static 32-bit Linux program of 96 bytes that exits with status 42 (mov ebx, 42;
# mov eax, 1; int 0x80). PAD is the last byte of the ELF identification, as two hex digits: 00 is what every program
# has; the kernel ignores that padding byte but the emulator's binfmt_misc pattern wants it 0, so a probe with 01
# tells whether the kernel itself runs 32-bit code.
i386_write_probe() {
  printf '\x7fELF\x01\x01\x01\0\0\0\0\0\0\0\0\x'"$2" >"$1"
  printf '\x02\0\x03\0\x01\0\0\0\x54\x80\x04\x08\x34\0\0\0\0\0\0\0\0\0\0\0\x34\0\x20\0\x01\0\0\0\0\0\0\0' >>"$1"
  printf '\x01\0\0\0\0\0\0\0\0\x80\x04\x08\0\x80\x04\x08\x60\0\0\0\x60\0\0\0\x05\0\0\0\0\x10\0\0' >>"$1"
  printf '\xbb\x2a\0\0\0\xb8\x01\0\0\0\xcd\x80' >>"$1"
  chmod +x "$1"
}

# i386_run_probe PAD: true when the probe starts and exits with 42, whoever runs it.
i386_run_probe() {
  local probe status=0
  probe=$(mktemp "${TMPDIR:-/tmp}/smk-i386-probe.XXXXXX")
  i386_write_probe "$probe" "$1"
  "$probe" 2>/dev/null || status=$?
  rm -f "$probe"
  [ "$status" = 42 ]
}

# binfmt_entries: the enabled binfmt_misc entries that take an ordinary 32-bit x86 program, one path a line.
binfmt_entries() {
  local entry header
  [ -f "$SMK_BINFMT_DIR/status" ] || return 0
  [ "$(cat "$SMK_BINFMT_DIR/status")" = enabled ] || return 0
  header=$(mktemp "${TMPDIR:-/tmp}/smk-i386-header.XXXXXX")
  i386_write_probe "$header" 00
  for entry in "$SMK_BINFMT_DIR"/*; do
    case ${entry##*/} in register | status) continue ;; esac
    binfmt_takes "$entry" "$header" && echo "$entry"
  done
  rm -f "$header"
}

# binfmt_takes ENTRY FILE: true when the binfmt_misc entry ENTRY is enabled and its magic matches FILE.
binfmt_takes() {
  local key value offset=0 magic='' mask='' data i byte want bits
  [ "$(head -n 1 "$1" 2>/dev/null)" = enabled ] || return 1
  while read -r key value; do
    case $key in
      offset) offset=$value ;;
      magic) magic=$value ;;
      mask) mask=$value ;;
    esac
  done <"$1"
  [ -n "$magic" ] || return 1 # an entry by file-name extension
  data=$(od -An -v -tx1 -j "$offset" -N $((${#magic} / 2)) "$2" | tr -d ' \n')
  [ ${#data} = ${#magic} ] || return 1
  for ((i = 0; i < ${#magic}; i += 2)); do
    byte=$((16#${data:i:2}))
    want=$((16#${magic:i:2}))
    bits=255
    [ -n "$mask" ] && bits=$((16#${mask:i:2}))
    (((byte ^ want) & bits)) && return 1
  done
  return 0
}

# binfmt_interpreter ENTRY: the program that the entry runs the file with.
binfmt_interpreter() { awk '$1 == "interpreter" { print $2 }' "$1"; }

# qemu_version PROGRAM: qemu's version, such as 10.0.2, or nothing when PROGRAM is no qemu.
qemu_version() {
  [ -x "$1" ] || return 0
  "$1" --version 2>/dev/null | sed -n '1s/^qemu-[^ ]* version \([0-9][0-9.]*\).*/\1/p'
}

# qemu_is_fast PROGRAM: true for qemu 10 or later.
qemu_is_fast() {
  local version
  version=$(qemu_version "$1")
  [ -n "$version" ] && [ "${version%%.*}" -ge "$SMK_QEMU_MIN_MAJOR" ]
}

# i386_kernel_runs: true when the kernel itself runs 32-bit x86 code. An entry that would take even the probe with
# the padding byte set is switched off for the moment.
i386_kernel_runs() {
  local probe entry result=0 off=()
  probe=$(mktemp "${TMPDIR:-/tmp}/smk-i386-probe.XXXXXX")
  i386_write_probe "$probe" 01
  for entry in "$SMK_BINFMT_DIR"/*; do
    case ${entry##*/} in register | status) continue ;; esac
    if [ -f "$entry" ] && binfmt_takes "$entry" "$probe"; then
      echo 0 | smk_as_root tee "$entry" >/dev/null && off+=("$entry")
    fi
  done
  "$probe" 2>/dev/null || result=$?
  for entry in "${off[@]}"; do echo 1 | smk_as_root tee "$entry" >/dev/null; done
  rm -f "$probe"
  [ "$result" = 42 ]
}

# i386_mode: how an ordinary 32-bit program starts now: "native", "emulated <interpreter> <version>", or "none".
i386_mode() {
  local entry
  entry=$(binfmt_entries | head -n 1)
  if [ -n "$entry" ]; then
    local interpreter
    interpreter=$(binfmt_interpreter "$entry")
    if i386_run_probe 00; then
      echo "emulated $interpreter $(qemu_version "$interpreter")"
    else
      echo none
    fi
  elif i386_run_probe 00; then
    echo native
  else
    echo none
  fi
}

# i386_describe MODE: the mode in words, for one line of output.
i386_describe() {
  set -- $1
  case $1 in
    native) echo "32-bit x86 code runs natively" ;;
    emulated) echo "32-bit x86 code runs emulated, by ${2##*/} ${3:-(unknown version)} through binfmt_misc" ;;
    *) echo "32-bit x86 code does not run here" ;;
  esac
}

# i386_emulation_forced: true when SMK_EMULATE_I386 asks for the emulated path.
i386_emulation_forced() {
  case ${SMK_EMULATE_I386:-0} in
    1 | yes | true | on) return 0 ;;
    0 | no | false | off | '') return 1 ;;
    *)
      echo "SMK_EMULATE_I386=$SMK_EMULATE_I386: say 1 to force the emulated path, 0 or nothing for the default" >&2
      exit 2
      ;;
  esac
}
