#include "host/SystemdLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "host/CHostLog.h"

static void* Load() {
    void* const library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        LogWarning(fmt::format("the service manager is told nothing, and no journal is written: {}",
                               dlerror()));
    return library;
}

void* FindInSystemd(const char* name) {
    static void* const library = Load();
    return library == nullptr ? nullptr : dlsym(library, name);
}
