// Fuzzes the reader of a run's output with any bytes as the file. It must come to an end, with no more
// than the file has, and a header that is read is written and read again, which must give the same.

#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "fuzz/Require.h"
#include "runs/COutputReader.h"
#include "runs/OutputHeader.h"

static constexpr char cPath[] = "output";

static void TryHeader(std::string_view bytes) {
    const std::optional<TOutputHeader> header = DecodeOutputHeader(bytes);
    if (!header)
        return;
    const std::string written = EncodeOutputHeader(*header);
    const std::optional<TOutputHeader> again = DecodeOutputHeader(written);
    Require(again.has_value(), "a written header cannot be read");
    Require(EncodeOutputHeader(*again) == written,
            "a header differs after it was written and read");
}

// scripts/fuzz runs this in an empty working directory in memory.
static void TryReader(std::string_view bytes) {
    {
        const CDescriptor file(open(cPath, O_WRONLY | O_CREAT | O_TRUNC, 0600));
        Require(write(file.Get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "cannot write");
    }
    try {
        vxsched::COutputReader reader(cPath);
        std::size_t count = 0;
        for (std::string part = reader.Next(); !part.empty(); part = reader.Next())
            count += part.size();
        Require(count <= bytes.size(), "there is more output than the file has");
    } catch (const vxsched::CError&) {  // no output, or damaged
    }
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    TryHeader(bytes.substr(0, cOutputHeaderSize));
    TryReader(bytes);
    return 0;
}
