#include "cli/exchange/ReadInput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "store/MakeError.h"

namespace vxsched {

// A file, a pipe or a terminal, to its end.
static std::string ReadAll(int descriptor, std::size_t most) {
    std::string content;
    std::vector<char> block(std::size_t{1} << 16);
    for (;;) {
        const ssize_t count = read(descriptor, block.data(), block.size());
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            throw MakeError(EError::cRefused, "{}", std::strerror(errno));
        if (count == 0)
            return content;
        content.append(block.data(), static_cast<std::size_t>(count));
        if (content.size() > most)
            throw MakeError(EError::cRefused, "it has more than {} MiB; give its tasks in parts",
                            most >> 20U);
    }
}

std::string ReadInput(const std::string& file, std::size_t most) {
    CDescriptor opened;
    if (file != cStandardInput) {
        opened = CDescriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!opened.IsOpen())
            throw MakeError(EError::cRefused, "{}", std::strerror(errno));
    }
    std::string content = ReadAll(opened.IsOpen() ? opened.Get() : STDIN_FILENO, most);
    if (content.empty())
        throw CError(EError::cRefused, "it is empty");
    return content;
}

}  // namespace vxsched
