# A source sees the headers of the directories that its own target uses, and no others: an include against the arrows
# does not compile. Each directory has a target of its name, and each target an include directory of its own in the
# build tree, where nothing but links to that directory's headers stand: `#include "store/TableFile.h"` is found by who
# uses `store`.

# add_headers(TARGET DIRECTORY): the target TARGET-headers for the headers of a directory alone, without code.
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

# add_folder(TARGET SOURCES SOURCE... [USES TARGET...] [LINKS LIBRARY...]): the static library of the current directory.
# Who uses it sees its headers and those of what it USES; the LINKS are for its sources alone.
function(add_folder target)
  cmake_parse_arguments(PARSE_ARGV 1 folder "" "" "SOURCES;USES;LINKS")
  file(RELATIVE_PATH directory ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  add_headers(${target} ${directory})
  add_library(${target} STATIC ${folder_SOURCES})
  # Code that a program does not use is left out of it by the linker.
  target_compile_options(${target} PRIVATE -ffunction-sections)
  target_link_libraries(
    ${target}
    PUBLIC ${target}-headers ${folder_USES}
    PRIVATE product_defaults ${folder_LINKS})
endfunction()
