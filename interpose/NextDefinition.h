#pragma once

#include <dlfcn.h>

// Marks a function that symbol lookup finds in the program before libc's. It has to be visible: all
// else is compiled hidden, and the add-in's calls would not find it.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

// The next definition of a function after this program's own, in the order of symbol lookup:
// libc's, or that of a preloaded library. Null if there is none. Any thread may call it; it may
// take the dynamic linker's lock and change errno.
template <typename Function>
Function* NextDefinition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
