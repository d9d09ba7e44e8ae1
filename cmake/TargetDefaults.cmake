# The compiler options of all targets of this project. Warnings are errors, with g++ and with clang++.
add_library(target_defaults INTERFACE)
target_compile_features(target_defaults INTERFACE cxx_std_20)
target_compile_options(
  target_defaults
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wconversion
            -Wshadow
            -Werror
            # __FILE__ in a message is relative to the project, without a directory of the build machine.
            -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

# SANITIZE names the sanitizers of the asan, tsan and fuzz presets.
set(SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize= (address,undefined)")
if(SANITIZE)
  # The type check of calls through a base class needs the add-in's type information in the host,
  # which the add-in does not export.
  add_compile_options(-fsanitize=${SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SANITIZE} -fno-sanitize=vptr)
endif()

# What is shipped is hardened, and exports nothing unless a declaration says so. A sanitizer brings checks of its own, and
# fortified functions need an optimising compiler.
add_library(product_defaults INTERFACE)
target_link_libraries(product_defaults INTERFACE target_defaults)
target_compile_options(product_defaults INTERFACE -fvisibility=hidden -fvisibility-inlines-hidden)
target_link_options(product_defaults INTERFACE -Wl,-z,relro -Wl,-z,now)
set_target_properties(product_defaults PROPERTIES INTERFACE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
if(NOT SANITIZE)
  target_compile_options(product_defaults INTERFACE -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  target_compile_definitions(product_defaults INTERFACE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

# A shared library that dlclose can unmap: without unique symbols, which would pin it.
add_library(shared_library_defaults INTERFACE)
target_link_libraries(shared_library_defaults INTERFACE product_defaults)
target_compile_options(shared_library_defaults INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

# find_libraries_at(TARGET DIRECTORY...): where a program or library of ours finds the others; $ORIGIN is its own directory.
# It is the same in the build and in the installation: an entry that CMake has to rewrite at the installation it pads
# with an empty one, and the dynamic loader takes that for the working directory.
function(find_libraries_at target)
  set(directories ${ARGN})
  list(REMOVE_DUPLICATES directories)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${directories}" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

option(COVERAGE "Measure line and branch coverage (clang++ only)" OFF)
if(COVERAGE)
  # The counters live in the profile file itself while a process runs, so that processes that abort,
  # are killed or call _exit are counted too.
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
  add_compile_definitions(COVERAGE_BUILD)
endif()

if(FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
