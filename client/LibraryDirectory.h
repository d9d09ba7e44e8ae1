#pragma once

#include <string>

namespace vxsched {

// The folder of the libraries: the add-in lies in it, the change process in its folder "vantrix". The
// client library says which it is; a program that has that linked into itself has to define it.
std::string LibraryDirectory();

}  // namespace vxsched
