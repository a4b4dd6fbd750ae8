// bionic's header is not among those that can be had here.
#pragma once

#include "platform/linux/include/sys/system_properties.h"
