#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "base/CDescriptor.h"
#include "store/CLeaseSignal.h"

namespace vxsched {

// Sole access to the table's file, for the moment that this object lives: whoever else opens the
// file waits in open(). For a caller that is about to overwrite what it takes for damaged. The
// store mutex does not suffice for that: a process that loads the add-in sets it free under any
// holder, so another process may be in the middle of a save, its file truncated and half written.
//
// The lease is the kernel's (F_SETLEASE). It is granted to the file's owner and to the superuser,
// on local file systems. To be destroyed by the thread that made it, which must not open the file
// in between: it would wait for itself.
class CTableLease {
public:
    enum EState {
        cHeld,     // nobody else has the file open
        cWritten,  // somebody has it open for writing; a save may be in progress
        cUnknown,  // somebody only reads it, or no lease is granted here
        cMissing,  // there is no file
    };

    // Asks for the lease of a file and does not wait for it. What cannot be opened, or is no regular
    // file, is cUnknown.
    explicit CTableLease(const std::filesystem::path& file);
    ~CTableLease();
    CTableLease(const CTableLease&) = delete;
    CTableLease& operator=(const CTableLease&) = delete;

    EState State() const { return state; }

    // All bytes of the file. Only while cHeld. Throws CError (cFailed).
    std::string Read() const;

    // Overwrites the file in place, so that a process which waits to open it finds the new bytes
    // and not a file that has been replaced. Only while cHeld. Fails as OverwriteTable() does.
    void Overwrite(std::string_view bytes) const;

private:
    void Ask();
    EState StateWithoutLease() const;

    const CLeaseSignal signal;
    const std::filesystem::path path;
    CDescriptor descriptor;
    EState state = cUnknown;
};

// Whether somebody may be saving the table of a directory, of which `bytes` were read under the
// store mutex. For a caller that takes them for damaged and is about to replace the table by name.
bool IsBeingSaved(const std::filesystem::path& directory, std::string_view bytes);

}  // namespace vxsched
