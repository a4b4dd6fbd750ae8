// bionic's 64-bit words of ELF are the kernel's: long long, where uint64_t is long.
#pragma once

#include <stdint.h>
#define uint64_t unsigned long long
#define int64_t long long
#include_next <elf.h>
#undef uint64_t
#undef int64_t
