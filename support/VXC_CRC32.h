#pragma once

#include <cstdint>
#include <string>

#include "VXC_Export.h"

// The common CRC-32 of a string (reflected polynomial 0xEDB88320, initial value and final
// complement 0xFFFFFFFF): 0xCBF43926 for "123456789", 0 for the empty string. Any thread may call
// it.
VXC_EXPORT std::uint32_t VXC_GenerateCRC32(std::string text);
