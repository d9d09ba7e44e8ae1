#pragma once

#include <string>

namespace vxsched {

// The directory of libVantrixScheduler.so and of vantrix/vxsched-change, without a slash at the
// end. The shared client library defines it as its own directory; a program that links the target
// `client` statically defines it itself. Always absolute: a
// program is started from there. Throws CError (cFailed) if it cannot be found. Any thread may call
// it.
std::string LibraryDirectory();

}  // namespace vxsched
