#pragma once

#include <gtest/gtest.h>
#include "calendar/CCalendarError.h"

#include <string>

// What the call refuses its input with. Fails the test and returns nothing if it throws nothing.
template <typename Call>
std::string CalendarErrorOf(const Call& call) {
    try {
        call();
    } catch (const vxsched::CCalendarError& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}
