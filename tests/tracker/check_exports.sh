#!/bin/sh
# check_exports.sh LIBRARY READELF SANITIZERS: fails unless LIBRARY exports exactly the entries, all
# with their symbol version, and needs no library beyond the C library.
set -eu
library=$1 readelf=$2 sanitizers=$3

expected=$(
  for name in initialize finalize malloc free calloc realloc memalign aligned_alloc posix_memalign \
    malloc_usable_size mallinfo mallopt malloc_info malloc_iterate malloc_disable malloc_enable \
    malloc_backtrace get_malloc_leak_info free_malloc_leak_info write_malloc_leak_info dump_heap
  do
    echo "FUNC track_$name@@LIBC_MALLOC_QUARLE"
  done
  echo "FUNC RegistryAllocateTracker@@LIBC_MALLOC_QUARLE"
)
# Defined symbols; the version node itself is an absolute object.
found=$("$readelf" --dyn-syms -W "$library" |
  awk '$7 ~ /^[0-9]+$/ && $5 != "LOCAL" { print $4, $8 }')
if [ "$(echo "$expected" | sort)" != "$(echo "$found" | sort)" ]; then
  echo "$library exports other symbols than it should:"
  echo "$found" | sort
  exit 1
fi

if [ -z "$sanitizers" ]; then
  others=$("$readelf" -d -W "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -v -e '^libc\.so' -e '^libm\.so' -e '^ld-linux-' || true)
  if [ -n "$others" ]; then
    echo "$library needs more than the C library: $others"
    exit 1
  fi
fi
