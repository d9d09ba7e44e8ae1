#pragma once

#include <gtest/gtest.h>
#include <vxsched/Error.h>

#include <string>

// Calls `call`, which must throw an error of that kind, and returns the error's message.
template <typename Call>
std::string ErrorOf(vxsched::EError kind, const Call& call) {
    try {
        call();
    } catch (const vxsched::CError& error) {
        EXPECT_EQ(error.Code(), kind) << error.what();
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}
