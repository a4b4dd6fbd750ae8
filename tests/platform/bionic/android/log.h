// What liblog's header has beyond the stand-in.
#pragma once

#include_next <android/log.h>

extern "C" int __android_log_write(int priority, const char* tag, const char* text);
