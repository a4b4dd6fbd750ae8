// SPDX-License-Identifier: Apache-2.0
// libc++ includes this header of bionic. Its contents are in <locale.h> elsewhere.
#pragma once

#include <locale.h>
