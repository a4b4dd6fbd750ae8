// SPDX-License-Identifier: Apache-2.0
// The API level of the fake bionic sysroot.
#pragma once

#define __ANDROID_API__ 29
