// The command vxsched: runs the command that was typed, and maps errors to exit statuses.

#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <string>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/StandardDescriptors.h"
#include "cli/CCommandLine.h"
#include "cli/time/TimeFormat.h"

namespace vxsched {

namespace {

// Prints the message, whose line ends are this program's own. If it has several lines, the others are
// indented so that they begin below the first one.
TExitStatus Fail(const std::string& message, TExitStatus status) {
    const std::string prefix = "vxsched: ";
    std::string shown;
    for (std::size_t offset = 0; offset <= message.size();) {
        const std::size_t end = std::min(message.find('\n', offset), message.size());
        shown += (shown.empty() ? prefix : '\n' + std::string(prefix.size(), ' ')) +
                 message.substr(offset, end - offset);
        offset = end + 1;
    }
    std::cerr << shown << '\n';
    return status;
}

int Main(int argc, const char* const* argv) {
    CCommandLine line;
    try {
        return line.Run(argc, argv);
    } catch (const CLI::Success& request) {
        return line.PrintRequested(request);
    } catch (const CLI::ParseError& error) {
        return Fail(Show(line.MessageFor(error)).string, cUsageStatus);
    } catch (const CParseError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CUsageError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CError& error) {
        return Fail(line.MessageFor(error), StatusOf(error.Code()));
    } catch (const std::exception& error) {
        return Fail(Show(error.what()).string, cRefusedStatus);
    }
}

}  // namespace

}  // namespace vxsched

int main(int argc, char** argv) {
    // What cannot be written to a standard output that was closed is an error all the same.
    OpenStandardDescriptors(O_RDONLY);
    try {
        return vxsched::Main(argc, argv);
    } catch (...) {
        return vxsched::cRefusedStatus;  // even the message could not be built
    }
}
