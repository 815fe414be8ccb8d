#!/bin/sh
# Intel HEX to flat binary: our converter against srec_cat, same 16 MiB image, same run.
#
#   bench/compare_hexfile.sh [BUILD_DIR] [REPEATS]
#
# Makes 16 MiB of bytes from the machine's own programs, writes them as Intel HEX at 0x08000000
# with srec_cat (type 04 records), then times, alternately and REPEATS times each,
#   ours:     bench_hexfile --convert in.hex ours.bin   (load, convert, image with 0xFF gaps, write)
#   srec_cat: srec_cat in.hex -intel -offset -0x08000000 -o ref.bin -binary
# checks both outputs are the same bytes and prints the best times and their ratio.
set -eu

build=${1:-build}
repeats=${2:-5}
bench=$build/bench/bench_hexfile
[ -x "$bench" ] || { echo "missing $bench (cmake --build $build --target bench_hexfile)" >&2; exit 1; }
command -v srec_cat >/dev/null || { echo "srec_cat missing (Debian package srecord)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 16 MiB of real machine code and data, repeated as needed
: >"$work/in.bin"
while [ "$(stat -c %s "$work/in.bin")" -lt 16777216 ]; do
  for f in /usr/bin/*; do
    [ -f "$f" ] && cat "$f" >>"$work/in.bin"
    [ "$(stat -c %s "$work/in.bin")" -ge 16777216 ] && break
  done
done
truncate -s 16777216 "$work/in.bin"
srec_cat "$work/in.bin" -binary -offset 0x08000000 -o "$work/in.hex" -intel -obs 32

now_ns() { date +%s%N; }
best_ours=0
best_ref=0
i=0
while [ "$i" -lt "$repeats" ]; do
  t0=$(now_ns)
  "$bench" --convert "$work/in.hex" "$work/ours.bin" >/dev/null
  t1=$(now_ns)
  srec_cat "$work/in.hex" -intel -offset -0x08000000 -o "$work/ref.bin" -binary
  t2=$(now_ns)
  ours=$((t1 - t0))
  ref=$((t2 - t1))
  if [ "$best_ours" -eq 0 ] || [ "$ours" -lt "$best_ours" ]; then best_ours=$ours; fi
  if [ "$best_ref" -eq 0 ] || [ "$ref" -lt "$best_ref" ]; then best_ref=$ref; fi
  i=$((i + 1))
done

cmp "$work/ours.bin" "$work/in.bin" || { echo "our image differs from the input" >&2; exit 1; }
cmp "$work/ref.bin" "$work/in.bin" || { echo "srec_cat image differs from the input" >&2; exit 1; }

hex_size=$(stat -c %s "$work/in.hex")
awk -v o="$best_ours" -v r="$best_ref" -v h="$hex_size" -v n="$repeats" 'BEGIN {
  printf "Intel HEX %.1f MiB -> 16 MiB binary, best of %d\n", h / 1048576, n
  printf "  varnel    %8.1f ms\n", o / 1e6
  printf "  srec_cat  %8.1f ms\n", r / 1e6
  printf "  ratio srec_cat/varnel: %.2fx\n", r / o
}'
