#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace vxsched {

// What the library that reads TOML cannot be given.
struct TTomlProblem {
    std::size_t offset;
    const char* text;  // for a person
};

// Returns the first place of a TOML text at which the library would recurse without a limit, for a key of very
// many parts (a.b.c has three), or would behave as nobody knows, for a character outside of ASCII that stands
// neither in a string nor in a comment, which TOML does not permit either. Exact for what is TOML; what is none
// may be judged either way.
std::optional<TTomlProblem> FindTomlProblem(std::string_view toml);

}  // namespace vxsched
