#pragma once

#include <sys/types.h>

#include <string>

#include "base/CDescriptor.h"

// The kinds of file that OpenToAppend() accepts.
enum class EAppendable {
    cFile,          // regular files only
    cFileOrDevice,  // also a terminal or /dev/null
    cAlsoAPipe,     // also a FIFO with a reader; it stays non-blocking
};

// Opens a file for appending, close-on-exec; creates it with `mode` if it is missing. `flags` are
// added to those of open(). Never blocks, not even on a FIFO without a reader. On failure returns a
// closed descriptor and stores the reason in `whyNot`: the error of open(), or that the file is of
// a kind that `what` does not accept.
CDescriptor OpenToAppend(const std::string& path, int flags, mode_t mode, EAppendable what,
                         std::string& whyNot);
