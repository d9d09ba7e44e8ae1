#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "CModel.h"

// Eight bytes stand for an operation, or for a row of the table that the operation before it puts
// down: what is left when a record is taken out of a sequence is a sequence again.
using TRecord = std::array<std::uint8_t, 8>;

// A text handed to an exported function, or none.
using TText = std::optional<std::string>;

// The bytes of one record as choices, in order, and zeros when they have run out. The values meet
// often and are now and then extreme.
class CChoices {
public:
    // Takes a record off the front of `records`, which must not be empty.
    CChoices(std::span<const TRecord>& records, const CModel& model);

    std::size_t Below(std::size_t count);
    bool OneIn(std::size_t count) { return Below(count) == count - 1; }

    template <typename Options>
    const auto& Of(const Options& options) {
        return options[Below(std::size(options))];
    }

    TText Name();         // mostly one that is in the file
    std::int64_t Time();  // mostly around the clock
    std::uint32_t Period();
    TText Program();
    TText Parameters();

    // At most `count`: each takes another record.
    TRows Rows(std::size_t count);

    const CModel& Model() const { return model; }

private:
    TRow Row();

    TRecord record{};
    std::size_t taken = 0;
    std::span<const TRecord>& more;
    const CModel& model;
};
