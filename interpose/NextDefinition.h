#pragma once

#include <dlfcn.h>

// The definition of a function that comes next to this program's own: libc's, or that of a library that was preloaded
// in front of it. Null when there is none.
template <typename Function>
Function* NextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
