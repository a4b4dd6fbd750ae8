# SPDX-License-Identifier: Apache-2.0
# Toolchain for Android on 64-bit Arm, API level 29, with the public NDK or with its sysroot.
#
# ANDROID_NDK: the root of an NDK. Uses its toolchain file and compiler.
# ANDROID_SYSROOT: a directory with Android's headers and libraries. In an NDK it is
#   toolchains/llvm/prebuilt/HOST/sysroot. Uses the host's clang and lld. The compiler runtime
#   comes from ANDROID_NDK or from the parent directory of the sysroot.
# Set one of them with -D or in the environment.
include(${CMAKE_CURRENT_LIST_DIR}/android-place.cmake)
if(NOT ANDROID_SYSROOT)
  set(ANDROID_ABI arm64-v8a)
  set(ANDROID_PLATFORM android-29)
  set(ANDROID_STL c++_static)
  include("${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
endif()
# Compiler checks configure their own projects, which do not see -D. The NDK's file overwrites the
# list, so append to it afterwards.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_NDK ANDROID_SYSROOT)
if(NOT ANDROID_SYSROOT)
  return()
endif()

set(CMAKE_SYSTEM_NAME Android)
# Prevents CMake from searching for an NDK.
set(CMAKE_SYSTEM_VERSION 1)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_SYSROOT "${ANDROID_SYSROOT}")
# Compiler checks do not link.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# The compiler searches the sysroot itself. CMake must not find libraries of the host.
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Prefer the plain name. CMakeLists.txt checks the version.
set(versions 22 21 20 19 18 17 16 15 14)
list(TRANSFORM versions PREPEND clang- OUTPUT_VARIABLE clang_names)
list(TRANSFORM versions PREPEND clang++- OUTPUT_VARIABLE clangxx_names)
find_program(MEMLEAK_CLANG NAMES clang ${clang_names})
find_program(MEMLEAK_CLANGXX NAMES clang++ ${clangxx_names})
if(NOT MEMLEAK_CLANG OR NOT MEMLEAK_CLANGXX)
  message(FATAL_ERROR " ANDROID_SYSROOT needs clang and lld, and clang was not found: run scripts/install-packages, or set ANDROID_NDK instead.")
endif()
set(CMAKE_C_COMPILER "${MEMLEAK_CLANG}")
set(CMAKE_CXX_COMPILER "${MEMLEAK_CLANGXX}")
set(CMAKE_ASM_COMPILER "${MEMLEAK_CLANG}")
foreach(language C CXX ASM)
  set(CMAKE_${language}_COMPILER_TARGET aarch64-linux-android29)
endforeach()
set(CMAKE_CXX_FLAGS_INIT -stdlib=libc++)
# Only the linker uses this resource directory. The compiler needs its own headers.
foreach(kind EXE SHARED MODULE)
  string(CONCAT CMAKE_${kind}_LINKER_FLAGS_INIT "-static-libstdc++ -fuse-ld=lld -Wl,--no-undefined "
    "-rtlib=compiler-rt -unwindlib=libunwind -resource-dir=\"${MEMLEAK_ANDROID_RUNTIME}\"")
endforeach()
