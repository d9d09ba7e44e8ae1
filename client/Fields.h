#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What goes through the pipes between a client and its change process: texts, each behind its length
// in four bytes, so that a text may hold anything.
namespace vxsched {

inline void PutField(std::string& bytes, std::string_view text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    char raw[sizeof length];
    std::memcpy(raw, &length, sizeof length);
    bytes.append(raw, sizeof raw);
    bytes += text;
}

// Takes the first text out of `bytes`; none when there is no whole one yet.
inline std::optional<std::string> TakeField(std::string& bytes) {
    std::uint32_t length = 0;
    if (bytes.size() < sizeof length)
        return {};
    std::memcpy(&length, bytes.data(), sizeof length);
    if (bytes.size() - sizeof length < length)
        return {};
    std::string text = bytes.substr(sizeof length, length);
    bytes.erase(0, sizeof length + length);
    return text;
}

}  // namespace vxsched
