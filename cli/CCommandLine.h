// The command line of vxsched: its commands and options, and what was typed.

#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Error.h>
#include "cli/commands/Commands.h"
#include "cli/commands/Selection.h"
#include "cli/output/COutput.h"

namespace vxsched {

// The options of every command and their values, and the command that was chosen.
class CCommandLine {
public:
    CCommandLine();

    // Parses the arguments, runs the command, and returns the exit status. Throws CLI::ParseError,
    // CParseError for a time that was not quoted, and the exceptions of the command.
    TExitStatus Run(int argc, const char* const* argv);

    // Prints the help or the version and returns the exit status.
    int PrintRequested(const CLI::Success& request) const {
        return app.exit(request, std::cout, std::cerr);
    }

    // The message for a command line that could not be parsed: the reason, and which help to read.
    std::string MessageFor(const CLI::ParseError& error) const;

    // The message for an error of the client library.
    std::string MessageFor(const CError& error) const;

private:
    using TCommand = std::function<TExitStatus()>;

    // Adds a command's options and arguments to it.
    using TOptions = std::function<void(CLI::App&)>;

    // As whom a command begins under the superuser, in a store of another user's. One that begins as
    // the caller, or that uses no store, becomes the owner itself if it has to.
    enum class EIdentity { cOwner, cCaller };

    // Adds a command. `options` is called only if the command line has this command: describing the
    // options of all commands would take a quarter of a short command's time.
    void Add(const char* name, const char* description, TCommand command, TOptions options,
             EIdentity identity = EIdentity::cOwner);
    void AddForSelected(const char* name, const char* description,
                        TExitStatus (*command)(const TCommon&, const TSelection&, COutput&),
                        bool isForcible);
    void AddCrontabOptions(CLI::App& import, CLI::Option* whole);
    void AddSelection(CLI::App& command, const char* valueName, const char* description);
    void AddQueries();
    void AddChanges();
    void AddMaintenance();
    void AddDryRun(CLI::App& command);
    void AddChangeOptions(CLI::App& command);
    void AddForce(CLI::App& command);
    void AddName(CLI::App& command);
    void AddJobOptions(CLI::App& command);
    void AddProgram(CLI::App& command);
    void Parse(int argc, const char* const* argv);
    void RestoreBrackets();
    std::string ReasonOf(const CLI::ParseError& error) const;
    void RequireQuotedTime() const;
    void TakeCommandAfterSeparator(std::size_t words);
    std::string ReasonOfUnknown(const std::string& typed) const;
    std::string ReasonOfUnexpected(const std::vector<std::string>& unexpected) const;
    void WarnIfNoHostHasRun() const;

    CLI::App app{"Shows and changes the scheduled tasks of a directory.", "vxsched"};
    COutput output;
    TCommon common;
    TCommand chosen;
    std::vector<std::string> beforeSeparator;  // the arguments before --

    std::string directory = ".";
    double lockTimeout = 60;  // seconds
    std::vector<std::string> forced;

    TCalendarOptions calendarOptions;
    THistoryOptions historyOptions;
    TOutputOptions outputOptions;
    std::optional<std::size_t> count;
    std::string until;
    TTaskArguments task;
    std::string flagValue;  // its option takes it
    TSelection selection;
    TCrontabOptions crontab;
    std::string file;
    std::string shell;
    std::optional<std::string> units;
    bool mustBecomeOwner = false;
    bool utc = false;
    bool namesOnly = false;
    bool replace = false;
    bool merge = false;
    bool force = false;
    bool wait = false;
    bool isCrontab = false;
    bool isToml = false;
    bool prune = false;
};

}  // namespace vxsched
