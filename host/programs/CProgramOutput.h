#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "base/CDescriptor.h"

// Where started programs write their standard output and error.
class CProgramOutput {
public:
    // `where` is "inherit" (where the host's own go), "journal", or a directory, which is made if need
    // be: each task has a file of its own there, moved to .1 when a start finds it beyond `limit`
    // bytes. Throws CHostError (cNoDirectory) when the directory cannot be had. Without a journal the
    // log is warned, and programs inherit.
    CProgramOutput(const std::string& where, std::uint64_t limit);

    // A descriptor for one start of a task, none when it inherits. What cannot be opened is logged,
    // and the program inherits. Any thread may call it.
    CDescriptor Open(const std::optional<std::string>& task) const;

private:
    CDescriptor OpenFile(const std::string& task) const;

    const std::string where;
    const std::uint64_t limit;
};

// A file name for any task's name, another for each: what is not a letter, a digit, '-', '_' or an
// inner '.' is percent-encoded, and a long name is cut and ends with a check sum. The empty name is
// "%".
std::string FileNameOf(const std::string& task);
