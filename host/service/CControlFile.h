#pragma once

#include <sys/types.h>

#include "base/CDescriptor.h"

// The socket of the file system that has the name files/control: made in the working directory, for
// those users who may use the store, made again when its file is gone or replaced, and removed at
// the end. Its owner listens on it. For the main thread.
class CControlFile {
public:
    // Makes the socket, in place of one that a host has left behind. If that is not possible, the
    // log is warned, and Retry() is readable in a second.
    CControlFile();

    // Removes the file, unless it is another one's by now.
    ~CControlFile();
    CControlFile(const CControlFile&) = delete;
    CControlFile& operator=(const CControlFile&) = delete;

    bool IsMade() const { return isBound; }

    // The socket and what is readable when its file loses its name; other ones each time that it is
    // made.
    const CDescriptor& Socket() const { return listener; }
    const CDescriptor& Watch() const { return watch; }

    // A timer, the same as long as the object lives.
    const CDescriptor& Retry() const { return retry; }

    // To be called when the watch or the timer is readable. Makes the socket again if its file is
    // gone or replaced; true if it was made.
    bool MakeIfGone();

private:
    void Make();
    void CheckInASecond() const;
    bool Bind();
    void OpenToGroup() const;
    void WatchFile();
    bool IsThere() const;

    const CDescriptor retry;
    CDescriptor watch;
    CDescriptor listener;
    // The file of the listener.
    dev_t device = 0;
    ino_t inode = 0;
    bool isBound = false;
    bool isBindFailureLogged = false;
};
