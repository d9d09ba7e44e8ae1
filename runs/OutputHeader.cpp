#include "runs/OutputHeader.h"

#include <fmt/format.h>

#include <charconv>

static constexpr std::string_view cBegin = "Output of a run, format 1. Size: ";
static constexpr std::string_view cWritten = ", written: ";
static constexpr std::string_view cClaimed = ", claimed: ";

std::string EncodeOutputHeader(const TOutputHeader& header) {
    std::string line = fmt::format("{}{}{}{}{}{}", cBegin, header.size, cWritten, header.written,
                                   cClaimed, header.claimed);
    line.resize(cOutputHeaderSize - 1, ' ');
    return line + '\n';
}

// Takes `text` and the number that follows from the begin of `bytes`.
static bool Take(std::string_view& bytes, std::string_view text, std::uint64_t& number) {
    if (!bytes.starts_with(text))
        return false;
    bytes.remove_prefix(text.size());
    const auto [end, error] = std::from_chars(bytes.data(), bytes.data() + bytes.size(), number);
    bytes.remove_prefix(static_cast<std::size_t>(end - bytes.data()));
    return error == std::errc();
}

std::optional<TOutputHeader> DecodeOutputHeader(std::string_view bytes) {
    TOutputHeader header;
    if (bytes.size() != cOutputHeaderSize || bytes.back() != '\n' ||
        !Take(bytes, cBegin, header.size) || !Take(bytes, cWritten, header.written) ||
        !Take(bytes, cClaimed, header.claimed))
        return {};
    if (bytes.find_first_not_of(' ') != bytes.size() - 1 || header.size == 0 ||
        header.claimed < header.written)
        return {};
    return header;
}
