#include "host/startup/CAddInLibrary.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "host/CHostError.h"

template <typename Symbol>
static Symbol* Find(void* handle, const char* name) {
    return reinterpret_cast<Symbol*>(dlsym(handle, name));
}

CAddInLibrary::CAddInLibrary(const std::string& path)
    : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr)
        throw CHostError(
            cNoAddIn,
            fmt::format("cannot load the add-in {}: {}. Pass the path of its library with --addin.",
                        path, dlerror()));
    const auto create = Find<decltype(CreateAddIn)>(handle, "CreateAddIn");
    destroy = Find<decltype(DestroyAddIn)>(handle, "DestroyAddIn");
    tasks = Find<std::list<TTask*>* const>(handle, "gTaskList");
    if (create == nullptr || destroy == nullptr || tasks == nullptr) {
        dlclose(handle);
        throw CHostError(cNoAddIn,
                         fmt::format("{} is not an add-in: it does not define {}. Choose another "
                                     "library with --addin.",
                                     path,
                                     create == nullptr    ? "CreateAddIn"
                                     : destroy == nullptr ? "DestroyAddIn"
                                                          : "gTaskList"));
    }
    addIn = create();
}

CAddInLibrary::~CAddInLibrary() {
    destroy(addIn);
    dlclose(handle);
}
