// SPDX-License-Identifier: Apache-2.0
// bionic defines 64-bit ELF types as long long, and uint64_t as long.
#pragma once

#include <stdint.h>
#define uint64_t unsigned long long
#define int64_t long long
#include_next <elf.h>
#undef uint64_t
#undef int64_t
