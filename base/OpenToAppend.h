#pragma once

#include <sys/types.h>

#include <string>

#include "base/CDescriptor.h"

// What somebody may have put in the place of a file.
enum class EAppendable {
    cFile,          // nothing else will do
    cFileOrDevice,  // a terminal or /dev/null will do as well
    cAlsoAPipe,     // and a pipe that somebody reads: what it does not take at once is then lost
};

// Opens a file for appending, made with these rights if it is missing; `flags` are further ones of
// open(). Never waits, as the opening of a pipe does for its reader. None, with the reason in
// `whyNot`, when it cannot be opened, or is something else than told.
CDescriptor OpenToAppend(const std::string& path, int flags, mode_t rights, EAppendable what,
                         std::string& whyNot);
