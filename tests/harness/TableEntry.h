#pragma once

#include <vxsched/Table.h>

#include <chrono>
#include <cstdint>
#include <string>

// Tasks of a table as the host reads them, around a fixed moment that stands for now.

inline constexpr vxsched::TTime cNow{std::chrono::seconds(1'000'000)};

inline vxsched::TTime Later(int seconds) {
    return cNow + std::chrono::seconds(seconds);
}

inline vxsched::TTaskEntry Task(const std::string& name, vxsched::TTime next,
                                const std::string& program, const std::string& parameter,
                                std::uint32_t period = 1, bool paused = false) {
    return {.name = name,
            .next = next,
            .last = vxsched::TTime(),
            .period = period,
            .program = program,
            .parameter = parameter,
            .paused = paused};
}
