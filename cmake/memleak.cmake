# Settings that every target shares, and the functions with which the folders declare their targets.

add_library(memleak_options INTERFACE)
target_include_directories(memleak_options INTERFACE
  ${CMAKE_SOURCE_DIR}
  ${CMAKE_SOURCE_DIR}/arch/${MEMLEAK_ARCH}/include)
# Log lines name the source file, not where it lay when it was built.
target_compile_options(memleak_options INTERFACE -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
# Frame pointers everywhere: the tracker walks them, and a profile of it should too.
target_compile_options(memleak_options INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Werror
  -fno-omit-frame-pointer)
if(MEMLEAK_SANITIZE)
  target_compile_options(memleak_options INTERFACE
    -fsanitize=${MEMLEAK_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(memleak_options INTERFACE -fsanitize=${MEMLEAK_SANITIZE})
endif()

# Flags of everything that runs inside a watched process.
add_library(memleak_library_options INTERFACE)
target_link_libraries(memleak_library_options INTERFACE memleak_options)
target_include_directories(memleak_library_options INTERFACE
  ${CMAKE_SOURCE_DIR}/platform/linux/include)
target_compile_options(memleak_library_options INTERFACE
  -fvisibility=hidden -fvisibility-inlines-hidden -fno-plt)

# memleak_add_component(NAME folder-sources...): the objects of one source folder, both for the
# library and for the tests that link a folder against fakes of the others.
function(memleak_add_component name)
  add_library(memleak_${name} OBJECT ${ARGN})
  target_link_libraries(memleak_${name} PUBLIC memleak_library_options Threads::Threads)
endfunction()
