#pragma once

#include <dlfcn.h>

// The next definition of a function after this program's own, in the order of symbol lookup:
// libc's, or that of a preloaded library. Null if there is none. Any thread may call it; it may
// take the dynamic linker's lock and change errno.
template <typename Function>
Function* NextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
