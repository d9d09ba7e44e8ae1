#pragma once

#include <cstddef>

namespace VXC_File {

inline constexpr std::size_t cNameCapacity = 256;
inline constexpr std::size_t cExtensionCapacity = 128;

void VXC_StripPathUrl(const char* path, char* directory, char* name, char* extension);

}  // namespace VXC_File
