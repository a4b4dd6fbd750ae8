# The page that `memleak html` writes: bundled from web/ by npm's packages in the build tree, and
# embedded into the program. Only a desk's own program gets it: nobody writes pages with a
# cross-built or a sanitized one, and their builds stay free of npm.
if(CMAKE_CROSSCOMPILING OR MEMLEAK_SANITIZE)
  set(page_default OFF)
else()
  set(page_default ON)
endif()
option(MEMLEAK_WITH_PAGE "Build the page of `memleak html` (takes npm)" ${page_default})

# memleak_add_page(TARGET): PageShell() of tools/export/html.h, with the page or empty.
function(memleak_add_page target)
  if(NOT MEMLEAK_WITH_PAGE)
    target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tools/export/no_page.cpp)
    return()
  endif()
  find_program(MEMLEAK_NODE NAMES node nodejs)
  find_program(MEMLEAK_NPM npm)
  if(NOT MEMLEAK_NODE OR NOT MEMLEAK_NPM)
    message(FATAL_ERROR "npm is missing, which builds the page of `memleak html`: run scripts/install-packages (Debian: apt install nodejs npm), or configure with -DMEMLEAK_WITH_PAGE=OFF.")
  endif()
  set(web ${CMAKE_SOURCE_DIR}/web)
  set(out ${CMAKE_BINARY_DIR}/web)
  # Copies change only when the lists do: packages that are there are not fetched again.
  foreach(list package.json package-lock.json)
    configure_file(${web}/${list} ${out}/${list} COPYONLY)
  endforeach()
  add_custom_command(OUTPUT ${out}/packages.stamp
    COMMAND ${MEMLEAK_NPM} ci --ignore-scripts --no-audit --no-fund --prefer-offline
      --no-update-notifier --loglevel=error
    COMMAND ${CMAKE_COMMAND} -E touch ${out}/packages.stamp
    DEPENDS ${out}/package.json ${out}/package-lock.json
    WORKING_DIRECTORY ${out} COMMENT "Fetching the page's packages" VERBATIM)
  file(GLOB sources CONFIGURE_DEPENDS ${web}/src/*)
  add_custom_command(OUTPUT ${out}/page.html
    COMMAND ${MEMLEAK_NODE} ${web}/bundle.js ${out}/node_modules ${out}/page.html
    DEPENDS ${out}/packages.stamp ${web}/bundle.js ${web}/page.html ${sources}
    COMMENT "Bundling the page" VERBATIM)
  add_custom_command(OUTPUT ${out}/page.cpp
    COMMAND ${CMAKE_COMMAND} -D INPUT=${out}/page.html -D OUTPUT=${out}/page.cpp
      -D HEADER=tools/export/html.h -D FUNCTION=PageShell -P ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
    DEPENDS ${out}/page.html ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
    COMMENT "Embedding the page" VERBATIM)
  target_sources(${target} PRIVATE ${out}/page.cpp)
endfunction()
