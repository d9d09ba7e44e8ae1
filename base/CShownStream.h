#pragma once

#include <string>
#include <string_view>

namespace vxsched {

// Text of several lines made safe for a terminal as Show() does it, in parts: line ends and tabs stay,
// and a character may be cut in two between parts. For one thread.
class CShownStream {
public:
    // Returns `bytes` as shown, but for a character at their end that is not complete yet.
    std::string Add(std::string_view bytes);

    // Returns what is left of such a character.
    std::string End();

private:
    std::string incomplete;
};

}  // namespace vxsched
