#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "CChoices.h"

// One thing done to a side, ready to be done to both.
class COperation {
public:
    using TAct = std::function<std::string(CSide&)>;

    COperation(std::string wording, TAct what) : text(std::move(wording)), act(std::move(what)) {}

    // Takes one record off the front of `records`, which must not be empty, and one for each row of
    // a table. What comes out fits what the model holds: names that are there, times around its
    // clock.
    static COperation From(std::span<const TRecord>& records, const CModel& model);

    // Likewise, but one that puts something in the place of the task file.
    static COperation PlaceFrom(std::span<const TRecord>& records, const CModel& model);

    static COperation Reload();
    static COperation SetClock(std::int64_t time);

    const std::string& Text() const { return text; }

    // What it answered, as text.
    std::string DoTo(CSide& side) const;

private:
    std::string text;
    TAct act;
};
