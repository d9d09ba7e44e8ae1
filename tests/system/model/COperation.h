#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "CChoices.h"

// One operation, to be applied to both sides.
class COperation {
public:
    using TAct = std::function<std::string(CSide&)>;

    COperation(std::string words, TAct what)
        : description(std::move(words)), act(std::move(what)) {}

    // Decodes one record from the front of `records`, which must not be empty, and one more for
    // each row of a table. The operation fits the state of the model: names in its table, times
    // around its clock.
    static COperation From(std::span<const TRecord>& records, const CModel& model);

    // Likewise, but an operation that puts something in the place of the task file.
    static COperation PlaceFrom(std::span<const TRecord>& records, const CModel& model);

    static COperation Reload();
    static COperation SetClock(std::int64_t time);

    const std::string& Description() const { return description; }

    // Applies it to `side` and returns the answer as a string.
    std::string DoTo(CSide& side) const;

private:
    std::string description;
    TAct act;
};
