#include "VXC_CRC32.h"

#include <array>

static consteval std::array<std::uint32_t, 256> MakeTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
        table[index] = value;
    }
    return table;
}

// By value: the type is part of the symbol that add-ins are linked to.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
std::uint32_t VXC_GenerateCRC32(std::string text) {
    static constexpr auto table = MakeTable();
    std::uint32_t crc = 0xFFFFFFFFU;
    for (const char character : text)
        crc = (crc >> 8) ^ table[(crc ^ static_cast<unsigned char>(character)) & 0xFFU];
    return ~crc;
}
