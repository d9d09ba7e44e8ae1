#pragma once

#include <gtest/gtest.h>
#include <vxsched/Error.h>

#include <string>

// The message of the error that the call throws, which must be of that kind.
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
