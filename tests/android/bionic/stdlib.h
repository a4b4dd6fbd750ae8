// SPDX-License-Identifier: Apache-2.0
// Adds getprogname, which bionic declares here.
#pragma once

#include_next <stdlib.h>

#ifdef __cplusplus
extern "C"
#endif
    const char*
    getprogname(void);
