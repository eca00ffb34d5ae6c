#!/usr/bin/env bash
# The release package: scripts/package makes it from the build tree, it holds exactly the files it should, and an
# example program builds against the unpacked header and import libraries with MinGW and with clang in MSVC mode and
# LLVM's linker, and scans a page with the package's DLL and virtual scanner behind Wine's own source manager.
#
# Usage: package_test.sh BUILD_DIR MINGW_GCC CLANG LLD_LINK SDK_INCLUDE_DIR SDK_LIB_DIR
# The SDK directories are mingw-w64's headers and import libraries, which stand in for a Windows SDK in MSVC mode (see
# smk_add_msvc_test in tests/CMakeLists.txt); tests/msvc_crt0.c stands in for the C runtime's start-up.
set -euo pipefail
[ $# -eq 6 ] || { echo "usage: $0 BUILD_DIR MINGW_GCC CLANG LLD_LINK SDK_INCLUDE_DIR SDK_LIB_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
gcc=$2
clang=$3
lld_link=$4
sdk_include=$5
sdk_lib=$6
source_dir=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
sources="$build/wineprefix-winedsm/drive_c/windows/twain_32"
restore() {
  # The prefix keeps the build's scanner for the other suites.
  VSCAN_DS="$build/bin/vscan.ds" "$source_dir/scripts/install-vscan" "$build/wineprefix-winedsm" --as-sane || true
  rm -rf "$work"
}
trap restore EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

"$source_dir/scripts/package" --prebuilt "$build" -o "$work/out"
version=$(head -n 1 "$source_dir/VERSION")
name=smkernal-$version-win32
zip="$work/out/$name.zip"
[ -f "$zip" ] || fail "scripts/package made no $zip"
[ "$(ls "$work/out")" = "$name.zip" ] || fail "scripts/package left more than the zip: $(ls "$work/out")"

# The files, and nothing else.
expected="$name/README.txt
$name/bin/smkernal.dll
$name/bin/smscan.exe
$name/bin/smtrace.exe
$name/examples/batch_to_files.c
$name/examples/memory_pages.c
$name/examples/native_page.c
$name/examples/read_block.c
$name/examples/result_words.h
$name/include/smkernal.h
$name/lib/libsmkernal.dll.a
$name/lib/smkernal.lib
$name/vscan/README.md
$name/vscan/vscan.ds"
listed=$(unzip -Z1 "$zip" | grep -v '/$' | LC_ALL=C sort)
[ "$listed" = "$expected" ] || fail "the package holds:
$listed
expected:
$expected"
unzip -q "$zip" -d "$work/unpacked"
pkg=$work/unpacked/$name
for file in bin/smkernal.dll bin/smscan.exe bin/smtrace.exe vscan/vscan.ds lib/libsmkernal.dll.a lib/smkernal.lib; do
  cmp -s "$pkg/$file" "$build/${file/#vscan/bin}" || fail "$file is not the build's"
done
cmp -s "$pkg/include/smkernal.h" "$source_dir/include/smkernal.h" || fail "include/smkernal.h is not the source's"
grep -q "^smkernal $version for 32-bit Windows" "$pkg/README.txt" || fail "README.txt does not name version $version"
grep -q "^| \`Pages = N\` |" "$pkg/vscan/README.md" || fail "vscan/README.md has no settings table"

# One example against the package alone, by both toolchains.
example=native_page
mkdir -p "$work/mingw" "$work/msvc"
"$gcc" -Wall -Wextra -Werror -I"$pkg/include" "$pkg/examples/$example.c" "$pkg/lib/libsmkernal.dll.a" \
  -o "$work/mingw/$example.exe"
msvc_c=("$clang" -x c --target=i686-pc-windows-msvc -fgnuc-version=4.2.1 -D_X86_ -D__USE_MINGW_ANSI_STDIO=0 -O1 -Wall
  -Wextra -Werror -isystem "$sdk_include")
"${msvc_c[@]}" -I"$pkg/include" -c "$pkg/examples/$example.c" -o "$work/msvc/$example.obj"
"${msvc_c[@]}" -c "$source_dir/tests/msvc_crt0.c" -o "$work/msvc/crt0.obj"
"$lld_link" /entry:mainCRTStartup /subsystem:console /nodefaultlib /safeseh:no /out:"$work/msvc/$example.exe" \
  "$work/msvc/$example.obj" "$work/msvc/crt0.obj" "$pkg/lib/smkernal.lib" "$sdk_lib/libmsvcrt.a" \
  "$sdk_lib/libuser32.a" "$sdk_lib/libkernel32.a"

# Each scans the flatbed page of the package's scanner, installed as Wine's sane.ds, with the package's DLL.
VSCAN_DS="$pkg/vscan/vscan.ds" "$source_dir/scripts/install-vscan" "$build/wineprefix-winedsm" --as-sane
rm -f "$sources/vscan.ini" "$sources/vscan.feeder"
for toolchain in mingw msvc; do
  cp "$pkg/bin/smkernal.dll" "$work/$toolchain/"
  output=$(cd "$work/$toolchain" && "$build/wine-run-winedsm" "./$example.exe" page.bmp 2>&1 | tr -d '\r') ||
    fail "$toolchain: $example.exe failed: $output"
  [ "$output" = "page: 850 x 1400 pixels, 24 bits a pixel: success
saved to page.bmp" ] || fail "$toolchain: $example.exe printed: $output"
  bmp=$work/$toolchain/page.bmp
  [ "$(head -c 2 "$bmp")" = BM ] || fail "$toolchain: page.bmp is no bitmap"
  # Width and height, bits a pixel, and the size of 1400 rows of 850 pixels padded to 2552 bytes behind 54 bytes.
  [ "$(od -An -t u4 -j 18 -N 8 "$bmp" | tr -s ' ')" = " 850 1400" ] || fail "$toolchain: page.bmp is not 850 x 1400"
  [ "$(od -An -t u2 -j 28 -N 2 "$bmp" | tr -d ' ')" = 24 ] || fail "$toolchain: page.bmp has not 24 bits a pixel"
  [ "$(stat -c %s "$bmp")" = $((54 + 2552 * 1400)) ] || fail "$toolchain: page.bmp has $(stat -c %s "$bmp") bytes"
  echo "$toolchain: $example.exe built against the package scanned page.bmp"
done
echo "package_test: $name.zip passed"
