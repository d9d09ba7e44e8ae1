#include "runs/COutputReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <vxsched/Error.h>
#include "base/RegularFile.h"
#include "store/MakeError.h"

namespace vxsched {

static constexpr std::uint64_t cBlock = std::uint64_t{256} << 10U;

// Reads up to `size` bytes; fewer at the file's end.
static std::string ReadAt(int file, std::uint64_t size, std::uint64_t offset,
                          const std::string& path) {
    std::string bytes(size, '\0');
    std::size_t count = 0;
    while (count < bytes.size()) {
        const ssize_t more = pread(file, bytes.data() + count, bytes.size() - count,
                                   static_cast<off_t>(offset + count));
        if (more == -1 && errno != EINTR)
            throw SystemError("cannot read " + path, errno);
        if (more == 0)
            break;
        count += more > 0 ? static_cast<std::size_t>(more) : 0;
    }
    bytes.resize(count);
    return bytes;
}

COutputReader::COutputReader(const std::string& outputPath)
    : path(outputPath), file(OpenRegularFile(path.c_str(), O_RDONLY | O_NOFOLLOW)) {
    if (!file.IsOpen())
        throw SystemError("cannot read " + path, errno);
}

// A line that is read while it is written may be of both.
TOutputHeader COutputReader::ReadHeader() const {
    std::string former;
    for (;;) {
        std::string line = ReadAt(file.Get(), cOutputHeaderSize, 0, path);
        if (line != former) {
            former = std::move(line);
            continue;
        }
        if (const auto header = DecodeOutputHeader(line))
            return *header;
        // It is about to be written, or there was no room for it.
        if (line.empty())
            return {.size = 1};
        throw MakeError(EError::cFailed, "{} is not the output of a run, or is damaged", path);
    }
}

std::string COutputReader::Next(std::uint64_t end) {
    const std::uint64_t former = next;
    TOutputHeader header = ReadHeader();
    std::string bytes;
    // The writer may overwrite what is being read.
    do {
        next = std::max(next, header.Begin());
        const std::uint64_t place = next % header.size;
        const std::uint64_t last = std::min(header.written, end);
        const std::uint64_t size =
            std::min({cBlock, last - std::min(next, last), header.size - place});
        bytes = ReadAt(file.Get(), size, cOutputHeaderSize + place, path);
        header = ReadHeader();
    } while (header.Begin() > next);
    lost = next - former;
    next += bytes.size();
    return bytes;
}

}  // namespace vxsched
