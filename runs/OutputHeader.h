#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The file of a run's output: a line of text, then a ring of bytes. The output's byte number N is at
// N modulo `size` of the ring, so the file keeps the last `size` bytes of however many were written,
// and reads as plain text until then.
struct TOutputHeader {
    std::uint64_t size = 0;     // of the ring, in bytes; at least 1
    std::uint64_t written = 0;  // bytes of output, from the begin of the run
    // Bytes that the writer has begun to write; the same as `written` between two writes. What these
    // have overwritten is lost.
    std::uint64_t claimed = 0;

    // The first byte that the ring still has.
    std::uint64_t Begin() const { return claimed > size ? claimed - size : 0; }
};

inline constexpr std::size_t cOutputHeaderSize = 128;

// The line of that size, with its line end.
std::string EncodeOutputHeader(const TOutputHeader& header);

// Empty if `bytes` are no such line, or its numbers contradict each other.
std::optional<TOutputHeader> DecodeOutputHeader(std::string_view bytes);
