# SPDX-License-Identifier: Apache-2.0
# Finds Android's headers, libraries and compiler runtime: ANDROID_NDK or ANDROID_SYSROOT, set with
# -D or in the environment. Stops the configuration if something is missing. Messages start with a
# blank because CMake wraps the others.
foreach(place ANDROID_NDK ANDROID_SYSROOT)
  if(NOT ${place} AND NOT "$ENV{${place}}" STREQUAL "")
    # Cached: the environment may be different when the build tree reconfigures itself.
    get_filename_component(path "$ENV{${place}}" ABSOLUTE BASE_DIR "$ENV{PWD}")
    set(${place} "${path}" CACHE PATH "See cmake/android-arm64.cmake" FORCE)
  endif()
endforeach()

if(NOT ANDROID_NDK AND NOT ANDROID_SYSROOT)
  message(FATAL_ERROR " Set ANDROID_NDK to the root of an NDK, or ANDROID_SYSROOT to a directory with Android's headers and libraries.")
elseif(ANDROID_NDK AND NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR " ANDROID_NDK is '${ANDROID_NDK}', which has no build/cmake/android.toolchain.cmake: set it to the root of an NDK.")
elseif(ANDROID_SYSROOT AND NOT EXISTS "${ANDROID_SYSROOT}/usr/include")
  message(FATAL_ERROR " ANDROID_SYSROOT is '${ANDROID_SYSROOT}', which has no usr/include: set it to a directory with Android's headers and libraries.")
endif()

# MEMLEAK_ANDROID_RUNTIME: the resource directory of the NDK's compiler, for another compiler. Since
# NDK r23, which dropped libgcc, it contains the builtins and the unwinder.
if(ANDROID_SYSROOT)
  set(toolchain "${ANDROID_SYSROOT}/..")
  if(ANDROID_NDK)
    set(toolchain "${ANDROID_NDK}/toolchains/llvm/prebuilt/*")
  endif()
  file(GLOB builtins "${toolchain}/lib*/clang/*/lib/linux/libclang_rt.builtins-aarch64-android.a")
  list(SORT builtins COMPARE NATURAL ORDER DESCENDING)
  set(MEMLEAK_ANDROID_RUNTIME "")
  foreach(file IN LISTS builtins)
    get_filename_component(directory "${file}" DIRECTORY)
    if(NOT MEMLEAK_ANDROID_RUNTIME AND EXISTS "${directory}/aarch64/libunwind.a")
      get_filename_component(MEMLEAK_ANDROID_RUNTIME "${directory}/../.." ABSOLUTE)
    endif()
  endforeach()
  if(NOT MEMLEAK_ANDROID_RUNTIME)
    message(FATAL_ERROR " The compiler runtime for Android (libclang_rt.builtins-aarch64-android.a and aarch64/libunwind.a) is not in ${toolchain}/lib*/clang/VERSION/lib/linux: set ANDROID_NDK to the root of an NDK (r23 or newer).")
  endif()
endif()
