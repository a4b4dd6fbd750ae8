#!/bin/bash
# The loader's dynamic symbols, and the one line on stderr for what a person got wrong.
# Usage: misuse.sh DIR-WITH-TRACKER DIR-WITHOUT PROGRAM "runner;that;takes;NAME=VALUE"
set -eu
lib=$1 alone=$2 program=$3
IFS=';' read -ra run <<<"$4"
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT

# expect TEXT DIR CASE: the case succeeds, with just one line on stderr that holds TEXT.
expect() {
  "${run[@]}" "LD_PRELOAD=$2/libmemleak_preload.so" "$program" "$3" 2>"$errors" ||
    { cat "$errors"; echo "$3 failed" >&2; exit 1; }
  if [[ $(wc -l <"$errors") != 1 ]] || ! grep -qF "$1" "$errors"; then
    echo "expected one line with '$1', got:" >&2
    cat "$errors" >&2
    exit 1
  fi
}

expect "memleak: cannot open $alone/libmemleak_tracker.so: " "$alone" untracked
MEMLEAK_TRACKER_START=0x1z expect "MEMLEAK_TRACKER_START=0x1z is not a number" "$lib" libraries
MEMLEAK_TRACKER_START=16 MEMLEAK_TRACKER_START_PARAMETER=0x100000000 \
  expect "MEMLEAK_TRACKER_START_PARAMETER=0x100000000 is not" "$lib" libraries

exports=$(readelf -W --dyn-syms "$lib/libmemleak_preload.so" |
  awk '$5 == "GLOBAL" && $7 != "UND" {print $8}' | sort | xargs)
wanted="aligned_alloc calloc free mallinfo mallinfo2 malloc malloc_info malloc_usable_size mallopt\
 memalign posix_memalign pvalloc realloc valloc"
[[ $exports == "$wanted" ]] || { echo "exports: $exports" >&2; exit 1; }
needed=$(readelf -d "$lib/libmemleak_preload.so" | awk '/NEEDED/ {print $NF}' | xargs)
[[ $needed =~ ^"[libc.so.6]"( "[ld-linux-"[a-z0-9_-]+".so."[12]"]")?$ ]] ||
  { echo "needs: $needed" >&2; exit 1; }
