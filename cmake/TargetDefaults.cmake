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

# A shared library that dlclose can unmap: without unique symbols, which would pin it, and with hidden
# visibility by default.
add_library(shared_library_defaults INTERFACE)
target_link_libraries(shared_library_defaults INTERFACE target_defaults)
target_compile_options(
  shared_library_defaults INTERFACE -fvisibility=hidden -fvisibility-inlines-hidden
                                    $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
target_link_options(shared_library_defaults INTERFACE -Wl,-z,relro -Wl,-z,now)

# SANITIZE names the sanitizers of the asan, tsan and fuzz presets.
set(SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize= (address,undefined)")
if(SANITIZE)
  # The type check of calls through a base class needs the add-in's type information in the host,
  # which the add-in does not export.
  add_compile_options(-fsanitize=${SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SANITIZE} -fno-sanitize=vptr)
endif()

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
