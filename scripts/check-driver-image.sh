#!/usr/bin/env bash
# Checks the Windows driver package a windows-x86 build produced: cdcacm.sys
# is a PE32 image for x86 and the native subsystem with an entry point, it
# imports only from ntoskrnl.exe, HAL.dll and USBD.SYS, no section is both
# writable and executable, no object brings static constructors, no driver
# function's stack frame exceeds 1 KiB (x86 kernel stacks are 12 KiB), and
# the INF sits beside the image.
#   bash scripts/check-driver-image.sh [BUILD_DIR]   (default build/windows-x86)
set -euo pipefail
build=${1:-build/windows-x86}
image=$build/package/cdcacm.sys
objects=$build/source/cdcacm/CMakeFiles/cdcacm_sys.dir
max_frame=1024
failed=0
fail() { echo "check-driver-image: $*" >&2; failed=1; }

[ -f "$image" ] || { echo "check-driver-image: $image is missing" >&2; exit 1; }
[ -f "$build/package/cdcacm.inf" ] || fail "the INF is not in the package folder"

headers=$(i686-w64-mingw32-objdump -p "$image")
grep -q 'file format pei-i386' <<<"$headers" || fail "not an x86 PE image"
grep -Eq '^Magic[[:space:]]+010b' <<<"$headers" || fail "not PE32"
grep -Eq '^Subsystem[[:space:]]+00000001' <<<"$headers" || fail "subsystem is not native"
grep -Eq '^AddressOfEntryPoint[[:space:]]+0*[1-9a-f]' <<<"$headers" || fail "no entry point"
while read -r dll; do
  case "${dll,,}" in
    ntoskrnl.exe | hal.dll | usbd.sys) ;;
    *) fail "imports from $dll" ;;
  esac
done < <(sed -n 's/^[[:space:]]*DLL Name: //p' <<<"$headers")

# objdump -h prints a section's flags on the line after its name; a CODE
# section without READONLY is writable and executable.
while read -r name; do
  fail "section $name is writable and executable"
done < <(i686-w64-mingw32-objdump -h "$image" |
  awk '/^ +[0-9]+ /{name=$2; next} /CODE/ && !/READONLY/{print name}')

for object in "$objects"/*.obj; do
  if i686-w64-mingw32-objdump -h "$object" | grep -Eq '\.ctors|\.init_array'; then
    fail "$(basename "$object") has static constructors"
  fi
done

frames=$(cat "$objects"/*.su | awk -F'\t' '{print $2 "\t" $1}' | sort -n -r)
echo "largest stack frames (bytes):"
head -n 10 <<<"$frames"
while IFS=$'\t' read -r bytes function; do
  [ "$bytes" -gt "$max_frame" ] && fail "frame of $bytes bytes: $function"
done <<<"$frames"

[ "$failed" -eq 0 ] && echo "check-driver-image: $image is a clean driver image"
exit "$failed"
