// Keeps what a rotation of the run history drops (LD_PRELOAD): before a rename replaces
// files/history.jsonl.1, that is copied to a file of its own in the directory "dropped".

#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <atomic>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

// Called by the writer of a record, with the history locked. Fails as libc's does.
extern "C" int rename(const char* from, const char* to) noexcept {
    static auto* const system = NextDefinition<int(const char*, const char*)>("rename");
    static std::atomic<int> number{0};
    if (std::string_view(to) == "files/history.jsonl.1") {
        std::error_code none;
        std::filesystem::copy_file(
            to, "dropped/" + std::to_string(getpid()) + '-' + std::to_string(++number), none);
    }
    return system(from, to);
}
