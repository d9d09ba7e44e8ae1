// Fuzzes what a launcher asks of the runner with any bytes as the environment variable. A request that
// is read is written and read again, which must give the same.

#include <optional>
#include <string>
#include <string_view>

#include "fuzz/Require.h"
#include "runs/RunRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::optional<TRunRequest> request = DecodeRunRequest(text);
    if (!request)
        return 0;
    const std::string written = EncodeRunRequest(*request);
    const std::optional<TRunRequest> again = DecodeRunRequest(written);
    Require(again.has_value(), "a written request cannot be read");
    Require(EncodeRunRequest(*again) == written, "a request differs after it was written and read");
    Require(!request->trigger.empty(), "a request has no trigger");
    return 0;
}
