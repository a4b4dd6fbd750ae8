# Settings that every target shares, and the functions with which the folders declare their targets.

if(ANDROID)
  set(MEMLEAK_SYSTEM android)
else()
  set(MEMLEAK_SYSTEM linux)
endif()
set(MEMLEAK_POLICIES ${MEMLEAK_SYSTEM} CACHE STRING
  "Whose policies hold where the system leaves a choice: linux or android")
if(NOT MEMLEAK_POLICIES MATCHES "^(linux|android)$")
  message(FATAL_ERROR "MEMLEAK_POLICIES is '${MEMLEAK_POLICIES}': set it to linux or android.")
endif()

# MEMLEAK_POLICY_<name>: the source of each policy. How a dynamic section reads, where files are and
# what a program is called is no choice: it follows from the system.
foreach(policy elf_policy paths program_name)
  set(MEMLEAK_POLICY_${policy} ${CMAKE_SOURCE_DIR}/platform/${MEMLEAK_SYSTEM}/${policy}.cpp)
endforeach()
# Call-frame information may be wrong, so walks by it need to know where the stack ends.
set(MEMLEAK_POLICY_readable_stack ${CMAKE_SOURCE_DIR}/platform/linux/readable_stack.cpp)
foreach(policy fork_policy page_protection pc_policy signal_policy thread_keys)
  set(MEMLEAK_POLICY_${policy} ${CMAKE_SOURCE_DIR}/platform/${MEMLEAK_POLICIES}/${policy}.cpp)
endforeach()

add_library(memleak_options INTERFACE)
target_include_directories(memleak_options INTERFACE
  ${CMAKE_SOURCE_DIR}
  ${CMAKE_SOURCE_DIR}/arch/${MEMLEAK_ARCH}/include)
# Log lines name the source file, not where it lay when it was built.
target_compile_options(memleak_options INTERFACE -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
# Frame pointers everywhere: the tracker walks them, and a profile of it should too.
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

# Flags of everything that runs inside a watched process.
add_library(memleak_library_options INTERFACE)
target_link_libraries(memleak_library_options INTERFACE memleak_options)
target_include_directories(memleak_library_options INTERFACE
  ${CMAKE_SOURCE_DIR}/platform/standin/include)
target_include_directories(memleak_library_options INTERFACE
  ${CMAKE_SOURCE_DIR}/platform/${MEMLEAK_SYSTEM}/include)
target_compile_options(memleak_library_options INTERFACE
  -fvisibility=hidden $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden> -fno-plt)

# memleak_add_component(NAME folder-sources...): the objects of one source folder, both for the
# library and for the tests that link a folder against fakes of the others.
function(memleak_add_component name)
  add_library(memleak_${name} OBJECT ${ARGN})
  target_link_libraries(memleak_${name} PUBLIC memleak_library_options Threads::Threads)
endfunction()
