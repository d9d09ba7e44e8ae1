#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The fields of the messages between a client and its change process: strings, each after its
// length as 4 bytes in host byte order. A string may hold any bytes.
namespace vxsched {

inline void PutField(std::string& bytes, std::string_view field) {
    const auto length = static_cast<std::uint32_t>(field.size());
    char raw[sizeof length];
    std::memcpy(raw, &length, sizeof length);
    bytes.append(raw, sizeof raw);
    bytes += field;
}

// Removes the first field from `bytes` and returns it, which is part of them; empty, and `bytes`
// unchanged, if it is not complete yet.
inline std::optional<std::string_view> TakeField(std::string_view& bytes) {
    std::uint32_t length = 0;
    if (bytes.size() < sizeof length)
        return {};
    std::memcpy(&length, bytes.data(), sizeof length);
    if (bytes.size() - sizeof length < length)
        return {};
    const std::string_view field = bytes.substr(sizeof length, length);
    bytes.remove_prefix(sizeof length + length);
    return field;
}

}  // namespace vxsched
