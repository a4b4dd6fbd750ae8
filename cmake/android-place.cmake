# Where Android's headers and libraries are: ANDROID_NDK or ANDROID_SYSROOT, with -D or in the
# environment. Stops the configuration when there is neither. Lines that begin with a blank are not
# broken by CMake.
foreach(place ANDROID_NDK ANDROID_SYSROOT)
  if(NOT ${place} AND NOT "$ENV{${place}}" STREQUAL "")
    # Kept, so that a build tree can configure itself anew without the environment.
    get_filename_component(path "$ENV{${place}}" ABSOLUTE BASE_DIR "$ENV{PWD}")
    set(${place} "${path}" CACHE PATH "See cmake/android-arm64.cmake" FORCE)
  endif()
endforeach()

if(NOT ANDROID_NDK AND NOT ANDROID_SYSROOT)
  message(FATAL_ERROR " Set ANDROID_NDK to the root of an NDK, or ANDROID_SYSROOT to a directory with Android's headers and libraries.")
elseif(ANDROID_NDK AND NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR " ANDROID_NDK is '${ANDROID_NDK}', without build/cmake/android.toolchain.cmake: set it to the root of an NDK.")
elseif(NOT ANDROID_NDK AND NOT EXISTS "${ANDROID_SYSROOT}/usr/include")
  message(FATAL_ERROR " ANDROID_SYSROOT is '${ANDROID_SYSROOT}', without usr/include: set it to a directory with Android's headers and libraries.")
endif()
