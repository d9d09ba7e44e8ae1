#pragma once

#include <dlfcn.h>

// Marks the definition of a function that the program puts in front of libc's: all else is compiled hidden.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

// The definition of a function that comes next to this program's own: libc's, or that of a library that was preloaded
// in front of it. Null when there is none.
template <typename Function>
Function* NextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
