#include "client/change/CAddIn.h"

#include <dlfcn.h>

#include <vxsched/Error.h>
#include "store/MakeError.h"

namespace vxsched {

CAddIn::CAddIn(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {
    if (handle == nullptr)
        throw MakeError(EError::cFailed, "cannot load the add-in: {}", dlerror());
    Find(create, "CreateTask");
    Find(destroy, "DestroyTask");
    Find(pause, "_Z9PauseTaskPKc");
    Find(resume, "_Z10ResumeTaskPKc");
    Find(setPeriod, "_Z13SetTaskPeriodPKcj");
    Find(executeNow, "_Z14ExecuteTaskNowPKcb");
}

template <typename Function>
void CAddIn::Find(Function& function, const char* symbol) {
    function = reinterpret_cast<Function>(dlsym(handle, symbol));
    if (function == nullptr)
        throw MakeError(EError::cFailed, "the add-in has no function {}: {}", symbol, dlerror());
}

}  // namespace vxsched
