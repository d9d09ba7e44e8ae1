#pragma once

#include <gtest/gtest.h>
#include <vxsched/Table.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

// Times for tests of parsing and formatting, made independently of the code under test.

// Sets the local zone while it exists.
class CZone {
public:
    explicit CZone(const char* name) { Set(name); }
    ~CZone() { Set(before ? before->c_str() : nullptr); }
    CZone(const CZone&) = delete;
    CZone& operator=(const CZone&) = delete;

private:
    static std::optional<std::string> Current() {
        const char* const value = std::getenv("TZ");
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }

    static void Set(const char* name) {
        if (name != nullptr)
            setenv("TZ", name, 1);
        else
            unsetenv("TZ");
        tzset();
    }

    std::optional<std::string> before = Current();
};

inline vxsched::TTime At(std::int64_t seconds) {
    return vxsched::TTime(std::chrono::seconds(seconds));
}

// A time in UTC, written as 2026-11-21T13:30:00Z.
inline vxsched::TTime Utc(const std::string& text) {
    struct tm fields {};
    const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields);
    EXPECT_TRUE(end != nullptr && *end == '\0') << text;
    return At(timegm(&fields));
}

// A Saturday noon in UTC, winter in Berlin (13:00) and New York (07:00).
inline constexpr char cNow[] = "2026-11-21T12:00:00Z";
