// Of its own in bionic, and included by the C++ library for it; part of this one elsewhere.
#pragma once

#include <locale.h>
