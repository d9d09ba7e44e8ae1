#include "host/startup/CAddInLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "host/CHostError.h"

template <typename Function>
static Function* EntryPoint(void* handle, const char* name) {
    return reinterpret_cast<Function*>(dlsym(handle, name));
}

CAddInLibrary::CAddInLibrary(const std::string& path)
    : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr)
        throw CHostError(
            cNoAddIn,
            fmt::format("cannot load the add-in {}: {}. Pass the path of its library with --addin.",
                        path, dlerror()));
    const auto create = EntryPoint<decltype(CreateAddIn)>(handle, "CreateAddIn");
    destroy = EntryPoint<decltype(DestroyAddIn)>(handle, "DestroyAddIn");
    if (create == nullptr || destroy == nullptr) {
        dlclose(handle);
        throw CHostError(cNoAddIn,
                         fmt::format("{} is not an add-in: it does not define {}. Choose another "
                                     "library with --addin.",
                                     path, create == nullptr ? "CreateAddIn" : "DestroyAddIn"));
    }
    addIn = create();
}

CAddInLibrary::~CAddInLibrary() {
    destroy(addIn);
    dlclose(handle);
}
