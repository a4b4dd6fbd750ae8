# SPDX-License-Identifier: Apache-2.0
# The page that `memleak html` writes. npm packages bundle it from web/ in the build tree, and
# memleak embeds it. Cross builds and sanitizer builds are for tests and have no page by default.
find_program(MEMLEAK_NODE NAMES node nodejs)
find_program(MEMLEAK_NPM npm)
if((CMAKE_CROSSCOMPILING OR MEMLEAK_SANITIZE) AND NOT DEFINED MEMLEAK_WITH_PAGE)
  set(MEMLEAK_WITH_PAGE OFF)
endif()
set(page_tools OFF)
if(MEMLEAK_NODE AND MEMLEAK_NPM)
  set(page_tools ON)
endif()
memleak_optional(MEMLEAK_WITH_PAGE ${page_tools} "the page of `memleak html`"
  "node or npm is missing (nodejs, npm)")

# memleak_add_page(TARGET): adds PageShell() of tools/export/html.h. It returns the page, or "" in a
# build without it.
function(memleak_add_page target)
  if(NOT MEMLEAK_WITH_PAGE)
    target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tools/export/no_page.cpp)
    return()
  endif()
  set(web ${CMAKE_SOURCE_DIR}/web)
  set(out ${CMAKE_BINARY_DIR}/web)
  # The copies change only with their sources, so packages are fetched only then.
  foreach(list package.json package-lock.json)
    configure_file(${web}/${list} ${out}/${list} COPYONLY)
  endforeach()
  add_custom_command(OUTPUT ${out}/packages.stamp
    COMMAND ${MEMLEAK_NPM} ci --ignore-scripts --no-audit --no-fund --prefer-offline
      --no-update-notifier --loglevel=error
    COMMAND ${CMAKE_COMMAND} -E touch ${out}/packages.stamp
    DEPENDS ${out}/package.json ${out}/package-lock.json
    WORKING_DIRECTORY ${out} VERBATIM
    COMMENT "Fetching the page's packages (without a network: -DMEMLEAK_WITH_PAGE=OFF)")
  file(GLOB sources CONFIGURE_DEPENDS ${web}/src/*)
  add_custom_command(OUTPUT ${out}/page.html
    COMMAND ${MEMLEAK_NODE} ${web}/bundle.js ${out}/node_modules ${out}/page.html ${PROJECT_VERSION}
    DEPENDS ${out}/packages.stamp ${web}/bundle.js ${web}/page.html ${sources}
    COMMENT "Bundling the page" VERBATIM)
  add_custom_command(OUTPUT ${out}/page.cpp
    COMMAND ${CMAKE_COMMAND} -D INPUT=${out}/page.html -D OUTPUT=${out}/page.cpp
      -D HEADER=tools/export/html.h -D FUNCTION=PageShell -P ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
    DEPENDS ${out}/page.html ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
    COMMENT "Embedding the page" VERBATIM)
  target_sources(${target} PRIVATE ${out}/page.cpp)
endfunction()
