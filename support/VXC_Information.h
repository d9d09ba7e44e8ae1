#pragma once

#include <string>

#include "VXC_Export.h"

// Named integer flags by which an add-in notifies its host, kept per process. Any thread may call
// any of these.

// Sets the flag `name` to `value` and calls the listener, if there is one. An exception of the
// listener, or of memory running out, passes to the caller.
VXC_EXPORT void VXC_SetInformation(const std::string& name, int value);

// Reads the flag `name` into `value`. False, with `value` left as it was, when it was never set.
VXC_EXPORT bool VXC_GetInformation(const std::string& name, int& value);

// Called for each VXC_SetInformation, on the thread that sets, after the flag has its new value and
// by one thread at a time. It must not call any of these functions.
using VXC_InformationListener = void (*)(const std::string& name, int value, void* context);

// Replaces the listener; `context` is passed to each of its calls; null removes it. Once it
// returns, the listener that was set before is not running and is not called again.
VXC_EXPORT void VXC_SetInformationListener(VXC_InformationListener listener, void* context);
