// The signal-safe log is not among the platform's headers that can be had here.
#pragma once

#include "platform/standin/include/async_safe/log.h"
