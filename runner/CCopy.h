#pragma once

#include <string>
#include <string_view>

#include "base/CDescriptor.h"
#include "base/CShownStream.h"

// Copies a run's output to standard output, as it is or line by line. The file of the output has all
// of it: a reader that stalls loses a part of the copy, and holds up no job. For one thread.
class CCopy {
public:
    // `prefix` begins each line, and no character of the program's acts on it or on a terminal: what
    // Show() replaces is replaced, but for tabs. A line is then written when its end has come, or when
    // it is long; a pipe takes each without mixing it with lines of others.
    explicit CCopy(const std::string& linePrefix);
    CCopy();

    // Blocks for a second at most while the reader takes nothing.
    void Write(std::string_view bytes);

    // Ends the last line, if its end has not come.
    void Finish();

private:
    void AppendLines(std::string_view text);
    void EndLine();
    void Send(std::string_view bytes);

    const CDescriptor target;  // standard output, without blocking where that can be had
    const std::string prefix;
    const bool isByLine;
    vxsched::CShownStream shown;
    std::string line;
    bool isStalled = false;  // the reader takes nothing; it is not waited for until it does
};
