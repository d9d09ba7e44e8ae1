#pragma once

#include <cstddef>

#include "VXC_Export.h"

namespace VXC_File {

// Capacities, in bytes with the terminating zero, of the buffers that VXC_StripPathUrl fills.
inline constexpr std::size_t cNameCapacity = 256;
inline constexpr std::size_t cExtensionCapacity = 128;

// Splits a path or URL into three terminated strings; a null buffer skips its part.
//
//   directory  everything up to and with the last slash; capacity: the length of `path` and one
//              more
//   name       the last component without its extension; at most cNameCapacity bytes are written
//   extension  the last component's extension with its dot (".exe" of report.exe); at most
//              cExtensionCapacity bytes are written, and none when there is no extension: preset it
//
// Forward and backward slashes both separate. The extension is what follows the last dot of the
// last component; a dot that begins the component (.profile) or ends it (file.) makes none. A
// part that does not fit is cut off. Any thread may call it; it never fails.
VXC_EXPORT void VXC_StripPathUrl(const char* path, char* directory, char* name, char* extension);

}  // namespace VXC_File
