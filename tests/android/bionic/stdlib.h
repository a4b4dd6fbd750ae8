// What bionic's header has beyond the GNU one.
#pragma once

#include_next <stdlib.h>

#ifdef __cplusplus
extern "C"
#endif
    const char*
    getprogname(void);
