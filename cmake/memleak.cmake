# SPDX-License-Identifier: Apache-2.0
# Settings of all targets, and functions that declare targets.

if(ANDROID)
  set(MEMLEAK_SYSTEM android)
else()
  set(MEMLEAK_SYSTEM linux)
endif()
set(MEMLEAK_POLICIES ${MEMLEAK_SYSTEM} CACHE STRING
  "The policies to use (platform/policies.h): linux or android")
if(NOT MEMLEAK_POLICIES MATCHES "^(linux|android)$")
  message(FATAL_ERROR "MEMLEAK_POLICIES is '${MEMLEAK_POLICIES}': set it to linux or android.")
endif()

# Sources that tests link without the rest of the platform.
set(MEMLEAK_POLICY_SOURCE ${CMAKE_SOURCE_DIR}/platform/${MEMLEAK_POLICIES}/policies.cpp)
set(MEMLEAK_SYSTEM_DIR ${CMAKE_SOURCE_DIR}/platform/${MEMLEAK_SYSTEM})

add_library(memleak_options INTERFACE)
target_include_directories(memleak_options INTERFACE
  ${CMAKE_SOURCE_DIR}
  ${CMAKE_SOURCE_DIR}/arch/${MEMLEAK_ARCH}/include)
# Log lines contain paths relative to the source tree.
target_compile_options(memleak_options INTERFACE -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
# The tracker walks frame pointers. Profilers of the tracker do too.
target_compile_options(memleak_options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion
  -fno-omit-frame-pointer)
option(MEMLEAK_WARNINGS_ARE_ERRORS "Stop at warnings" ON)
if(MEMLEAK_WARNINGS_ARE_ERRORS)
  target_compile_options(memleak_options INTERFACE -Werror)
endif()
if(MEMLEAK_SANITIZE)
  target_compile_options(memleak_options INTERFACE
    -fsanitize=${MEMLEAK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(memleak_options INTERFACE -fsanitize=${MEMLEAK_SANITIZE})
endif()

# Flags of all code that runs inside a watched process.
add_library(memleak_library_options INTERFACE)
target_link_libraries(memleak_library_options INTERFACE memleak_options)
# Android's headers: those that the NDK lacks, and for Linux also those that the NDK has.
set(MEMLEAK_ANDROID_API_INCLUDE ${CMAKE_SOURCE_DIR}/platform/android_api/include)
if(NOT ANDROID)
  list(APPEND MEMLEAK_ANDROID_API_INCLUDE ${CMAKE_SOURCE_DIR}/platform/android_api/ndk_include)
endif()
target_include_directories(memleak_library_options INTERFACE ${MEMLEAK_ANDROID_API_INCLUDE})
target_compile_options(memleak_library_options INTERFACE
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden> -fno-plt)

# memleak_add_component(NAME SOURCES...): the objects of one source folder. The library links them.
# Tests link some folders with fakes of the others.
function(memleak_add_component name)
  add_library(memleak_${name} OBJECT ${ARGN})
  target_link_libraries(memleak_${name} PUBLIC memleak_library_options Threads::Threads)
endfunction()

# memleak_optional(OPTION FOUND PART REASON): OPTION decides whether to build PART. Its default is
# FOUND, which is true if the host has all that PART needs. REASON names what is missing.
macro(memleak_optional option found part reason)
  if(NOT DEFINED ${option})
    # Not cached: the next configuration checks again.
    set(${option} ${found})
    if(NOT ${option})
      message(STATUS "Not building ${part}: ${reason}")
    endif()
  elseif(${option} AND NOT "${found}")
    message(FATAL_ERROR " ${reason}: install it, or configure with -D${option}=OFF.")
  endif()
endmacro()
