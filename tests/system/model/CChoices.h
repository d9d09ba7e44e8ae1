#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "CModel.h"

// Eight bytes encode an operation, or a row of the table that the operation before it writes. A
// sequence without one of its records is a valid sequence too.
using TRecord = std::array<std::uint8_t, 8>;

// A string passed to an exported function, or null.
using TOptionalString = std::optional<std::string>;

// The bytes of one record as choices, in order; zeros when they are used up. The values coincide
// often and are sometimes extreme.
class CChoices {
public:
    // Removes a record from the front of `records`, which must not be empty.
    CChoices(std::span<const TRecord>& records, const CModel& model);

    std::size_t Below(std::size_t count);
    bool OneIn(std::size_t count) { return Below(count) == count - 1; }

    template <typename Options>
    const auto& Of(const Options& options) {
        return options[Below(std::size(options))];
    }

    TOptionalString Name();  // mostly one that is in the file
    std::int64_t Time();     // mostly around the clock
    std::uint32_t Period();
    TOptionalString Program();
    TOptionalString Parameters();

    // At most `count` rows; each uses another record.
    TRows Rows(std::size_t count);

    const CModel& Model() const { return model; }

private:
    TRow Row();

    TRecord record{};
    std::size_t taken = 0;
    std::span<const TRecord>& more;
    const CModel& model;
};
