// Stand-in: the header in which the platform declares RegsGetLocal.
#pragma once

#include "unwindstack/Regs.h"
