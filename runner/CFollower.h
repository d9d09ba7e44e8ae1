#pragma once

#include <string>
#include <string_view>

#include "base/CDescriptor.h"

// Whoever waits for a run and reads all that its program writes, by a stream socket. As with a pipe of
// a shell, a program waits for a reader that is slower; one that has gone is left alone, and the run
// goes on. For one thread.
class CFollower {
public:
    // Owns the descriptor; -1: nobody.
    explicit CFollower(int socketToReader) : socket(socketToReader) {}

    // Sends what the reader takes at once, and holds the rest back. Does not block.
    void Take(std::string_view bytes);

    // Sends more of what is held back.
    void Send();

    // The descriptor that is writable when Send() should be called, and before which nothing more
    // should be read for this reader; -1: nothing is held back.
    int WaitsFor() const { return pending.empty() ? -1 : socket.Get(); }

    // Another process sends what is held back, and what comes.
    void HandOver();

    // The reader gets nothing more but what is held back, and then the end.
    void End();

private:
    void CloseIfDone();

    CDescriptor socket;
    std::string pending;
    bool isEnding = false;
};
