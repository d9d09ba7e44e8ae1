#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/CDescriptor.h"
#include "runs/OutputHeader.h"

// Writes the file of a run's output. For one thread of one process at a time; others may read the
// file meanwhile (COutputReader).
class COutputFile {
public:
    // Creates the file, for its owner alone or for whom the store of the working directory is open
    // to, with room for the last `size` bytes of the output; no file for 0. A file of that name, or
    // anything else, is not opened, nor is a link in the path followed but for its first directory.
    // On failure the output is only counted. `logWarning` is called with the message of the first
    // failure, here or in Append().
    COutputFile(const std::string& path, std::uint64_t size,
                std::function<void(const std::string&)> logWarning = {});

    // Appends to the output. Blocks for disk access only. After a failure, as on a full disk, nothing
    // is written any more, so that the file keeps the output up to there, whole; later bytes are only
    // counted.
    void Append(std::string_view bytes);

    std::uint64_t Count() const { return count; }  // bytes of output, whether or not they are kept

    // Why the output is not kept, or only up to some point; empty if it is.
    const std::string& Error() const { return error; }

    // Lets go of the file, to which nothing is appended any more. It counts as being written until all
    // processes that have it, since a fork, have done so or have ended.
    void Close() { file = CDescriptor(); }

private:
    void Create();
    bool WriteHeader();
    bool Write(std::string_view bytes);
    void Fail();

    const std::string path;
    const std::function<void(const std::string&)> warn;
    CDescriptor file;
    TOutputHeader header;
    std::uint64_t count = 0;
    std::string error;
};

// Whether a COutputFile has that file, or this user cannot find out.
bool IsOutputWritten(const std::string& path);

// Removes a file unless IsOutputWritten(); false if it is still there. Several processes may do so at
// once.
bool RemoveUnwrittenOutput(const std::string& path);
