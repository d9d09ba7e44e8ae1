#pragma once

#include <cstdint>
#include <string>

std::uint32_t VXC_GenerateCRC32(std::string data);
