// The release that the headers are dressed as.
#pragma once

#define __ANDROID_API__ 29
