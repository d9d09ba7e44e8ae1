# A source can include the headers of the directories that its own target uses, and no others: an include against the
# dependency graph does not compile. Each directory has a target of its name, and each target an include directory of its
# own in the build tree, which contains only links to that directory's headers: `#include "store/TableFile.h"` is found
# by targets that use `store`.

# add_headers(TARGET DIRECTORY): creates the target TARGET-headers for the headers of a directory, without code.
function(add_headers target directory)
  set(root ${PROJECT_BINARY_DIR}/include-roots/${target})
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${root}/${directory})
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/${directory} ${PROJECT_SOURCE_DIR}/${directory}/*.h)
  foreach(header IN LISTS headers)
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${directory}/${header} ${root}/${directory}/${header} SYMBOLIC)
  endforeach()
  add_library(${target}-headers INTERFACE)
  target_include_directories(${target}-headers INTERFACE ${root})
endfunction()

# add_directory_library(TARGET SOURCES SOURCE... [USES TARGET...] [LINKS LIBRARY...] [PRECOMPILED TARGET]): creates the
# static library of the current directory. Its users can include its headers and those of the targets it USES; the LINKS
# are for its sources alone. The headers that are slow to compile are read precompiled: those of base, or of the target
# PRECOMPILED, or of its own.
function(add_directory_library target)
  cmake_parse_arguments(PARSE_ARGV 1 library "" "PRECOMPILED" "SOURCES;USES;LINKS")
  file(RELATIVE_PATH directory ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  add_headers(${target} ${directory})
  add_library(${target} STATIC ${library_SOURCES})
  # Lets the linker drop code that a program does not use.
  target_compile_options(${target} PRIVATE -ffunction-sections)
  target_link_libraries(
    ${target}
    PUBLIC ${target}-headers ${library_USES}
    PRIVATE product_defaults ${library_LINKS})
  if(NOT library_PRECOMPILED)
    set(library_PRECOMPILED base)
  endif()
  if(NOT library_PRECOMPILED STREQUAL target)
    target_precompile_headers(${target} REUSE_FROM ${library_PRECOMPILED})
  endif()
endfunction()
