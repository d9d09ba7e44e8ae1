#include "VXC_Information.h"

#include <map>
#include <mutex>

namespace {

using TFlags = std::map<std::string, int>;

// The flags outlive every other finaliser of the process that may still set one; they are freed
// when the library itself is unloaded.
constinit std::mutex gInformationMutex;
constinit TFlags* gFlags = nullptr;
constinit VXC_InformationListener gListener = nullptr;
constinit void* gListenerContext = nullptr;

[[gnu::destructor]] void FreeFlags() {
    delete gFlags;
    gFlags = nullptr;
}

}  // namespace

void VXC_SetInformation(const std::string& name, int value) {
    const std::lock_guard<std::mutex> lock(gInformationMutex);
    if (gFlags == nullptr)
        gFlags = new TFlags;
    (*gFlags)[name] = value;
    if (gListener != nullptr)
        gListener(name, value, gListenerContext);
}

bool VXC_GetInformation(const std::string& name, int& value) {
    const std::lock_guard<std::mutex> lock(gInformationMutex);
    if (gFlags == nullptr)
        return false;
    const auto found = gFlags->find(name);
    if (found == gFlags->end())
        return false;
    value = found->second;
    return true;
}

void VXC_SetInformationListener(VXC_InformationListener listener, void* context) {
    const std::lock_guard<std::mutex> lock(gInformationMutex);
    gListener = listener;
    gListenerContext = context;
}
