// SPDX-License-Identifier: Apache-2.0
// bionic's inotify_rm_watch takes an unsigned watch descriptor.
#pragma once

#define inotify_rm_watch gnu_inotify_rm_watch
#include_next <sys/inotify.h>
#undef inotify_rm_watch

extern "C" int inotify_rm_watch(int events, uint32_t watch);
