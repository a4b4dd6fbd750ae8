# SPDX-License-Identifier: Apache-2.0
# Installation (cmake --install BUILD) and Debian package (cpack -G DEB in BUILD).
if(NOT MEMLEAK_WITH_CONTROLLER)
  return()
endif()
include(GNUInstallDirs)

install(TARGETS memleak RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# No program links with the two libraries. The controller finds them relative to its own file.
install(TARGETS memleak_preload memleak_tracker LIBRARY DESTINATION lib/memleak)
add_subdirectory(packaging)
# The folder has the package's name. README.md links to docs/ beside it.
set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/memleak-tracker)
install(FILES CHANGELOG.md CONTRIBUTING.md LICENSE README.md SECURITY.md DESTINATION ${doc_dir})
install(DIRECTORY docs DESTINATION ${doc_dir} FILES_MATCHING PATTERN "*.md" PATTERN "*.png")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME memleak-tracker)
set(CPACK_PACKAGE_VENDOR "memleak tracker")
set(CPACK_PACKAGE_CONTACT "memleak tracker maintainers <maintainers@memleak.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "finds which call stacks of a program hold its memory")
set(CPACK_PACKAGE_DESCRIPTION "Recording is switched on and off from outside in a running program,
costs next to nothing while it is off, and ends in a report of the live memory
by call stack: of the heap, of mappings and of device buffers.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(MEMLEAK_ARCH STREQUAL aarch64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
include(CPack)
