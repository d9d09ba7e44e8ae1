#include "host/SystemdLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "host/CHostLog.h"

static void* Load() {
    void* const library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        LogWarning(fmt::format(
            "cannot load libsystemd: {}. The service manager is not notified, and programs "
            "cannot write to the journal.",
            dlerror()));
    return library;
}

void* FindInSystemd(const char* name) {
    static void* const library = Load();
    return library == nullptr ? nullptr : dlsym(library, name);
}
