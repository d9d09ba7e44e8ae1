#include "host/PutTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "client/CClientError.h"
#include "client/TableFile.h"
#include "host/CDescriptor.h"

static void WriteInPlace(const std::string& bytes) {
    const CDescriptor file(open(vxsched::TableFile(".").c_str(), O_WRONLY | O_CLOEXEC));
    const auto size = static_cast<off_t>(bytes.size());
    if (!file.IsOpen())
        throw vxsched::SystemError("cannot write the table", errno);
    // The room is had before the first byte is written, so that a table is never left half written.
    if (const int error = posix_fallocate(file.Get(), 0, size); error != 0)
        throw vxsched::SystemError("cannot write the table", error);
    if (pwrite(file.Get(), bytes.data(), bytes.size(), 0) != size ||
        ftruncate(file.Get(), size) == -1)
        throw vxsched::SystemError("cannot write the table", errno);
}

void PutTable(const std::string& bytes) {
    try {
        vxsched::ReplaceTable(".", bytes);
    } catch (const vxsched::CClientError&) {
        WriteInPlace(bytes);
    }
}
