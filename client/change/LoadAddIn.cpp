#include "client/change/LoadAddIn.h"

#include <dlfcn.h>

#include <vxsched/Error.h>
#include "store/MakeError.h"

namespace vxsched {

decltype(&ExecuteTaskNow) LoadAddIn(const std::string& path) {
    constexpr char cExecuteTaskNow[] = "_Z14ExecuteTaskNowPKcb";
    void* const addIn = dlopen(path.c_str(), RTLD_NOW);
    if (addIn == nullptr)
        throw MakeError(EError::cFailed, "cannot load the add-in: {}", dlerror());
    void* const function = dlsym(addIn, cExecuteTaskNow);
    if (function == nullptr)
        throw MakeError(EError::cFailed, "the add-in has no function {}: {}", cExecuteTaskNow,
                        dlerror());
    return reinterpret_cast<decltype(&ExecuteTaskNow)>(function);
}

}  // namespace vxsched
