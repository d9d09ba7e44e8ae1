#include "store/TaskFileName.h"

#include <VXC_CRC32.h>
#include <fmt/format.h>

#include <cstddef>

namespace vxsched {

// Together with a checksum and what callers add, less than the 255 bytes of a file name.
static constexpr std::size_t cLongestFileName = 200;

static bool IsPlain(char character, bool isFirst) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '-' || character == '_' ||
           (character == '.' && !isFirst);
}

std::string FileNameOf(const std::string& task) {
    if (task.empty())
        return "%";
    std::string name;
    for (const char character : task) {
        if (IsPlain(character, name.empty()))
            name += character;
        else
            name += fmt::format("%{:02X}", static_cast<unsigned char>(character));
    }
    if (name.size() > cLongestFileName)
        name = fmt::format("{}%{:08X}", name.substr(0, cLongestFileName), VXC_GenerateCRC32(task));
    return name;
}

std::string FileNameOrUnknown(const std::optional<std::string>& task) {
    return task ? FileNameOf(*task) : "%unknown";
}

}  // namespace vxsched
