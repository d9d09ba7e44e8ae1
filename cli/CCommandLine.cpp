#include "cli/CCommandLine.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "base/FindNearest.h"
#include "cli/ArgumentChecks.h"
#include "cli/commands/Interruption.h"
#include "cli/time/PastTime.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"
#include "store/StoreOwner.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// `what`, in the plural for several arguments, and the arguments: unknown options "-a", "-b".
std::string Listed(const std::string& what, const std::vector<std::string>& arguments) {
    return fmt::format("{}{} \"{}\"", what, arguments.size() == 1 ? "" : "s",
                       fmt::join(arguments, "\", \""));
}

// The parser takes an argument in brackets for a list of several, where several are possible.
constexpr char cBracketMark = '\x01';

bool IsInBrackets(std::string_view value) {
    return value.starts_with('[') && value.ends_with(']');
}

// Marks such arguments and values of options at their end, and what ends like the mark.
std::vector<std::string> ProtectBrackets(int argc, const char* const* argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    for (std::string& argument : arguments) {
        const std::size_t equals = argument.starts_with("--") ? argument.find('=') : 0;
        const std::string_view value = std::string_view(argument).substr(
            equals == 0 || equals == std::string::npos ? 0 : equals + 1);
        if (IsInBrackets(value) || value.ends_with(cBracketMark))
            argument += cBracketMark;
    }
    return arguments;
}

}  // namespace

CCommandLine::CCommandLine() {
    app.require_subcommand(1);
    app.fallthrough();
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.set_version_flag("--version", "vxsched " VXSCHED_VERSION);
    app.add_option("--directory", directory,
                   "Working directory of the scheduling process; the table is "
                   "DIR/files/scheduler.dat")
        ->envname("VXSCHED_DIRECTORY")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--lock-timeout", lockTimeout,
                   "How long to wait for each lock and for the scheduling process, in seconds")
        ->check(CheckLockTimeout)
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--utc", utc, "Print times in UTC");
    app.footer(
        "Times: 2026-11-21 14:30 (local; append Z or +01:00 for another zone), 14:30,\n"
        "noon, midnight, tomorrow, friday, \"friday 02:00\", now, \"in 3h\", +90m.\n"
        "Periods: 15m, 6h, 1d, 2w, once.\n"
        "Exit status: 0 success, 1 refused or failed, 2 usage error, 3 no such task or\n"
        "output, 4 no permission, 5 damaged table, 6 no scheduling process, 9 cut short, result\n"
        "unknown.");
    AddQueries();
    AddChanges();
    AddMaintenance();
}

void CCommandLine::Add(const char* name, const char* description, TCommand command,
                       TOptions options, EIdentity identity) {
    CLI::App* const added = app.add_subcommand(name, description);
    added->group("Commands");
    added->callback([this, command = std::move(command), identity] {
        chosen = command;
        mustBecomeOwner = identity == EIdentity::cOwner;
    });
    added->preparse_callback(
        [added, options = std::move(options)](std::size_t /*left*/) { options(*added); });
}

// A mistyped directory would otherwise look like an empty table.
void CCommandLine::WarnIfNoHostHasRun() const {
    std::error_code error;
    if (std::filesystem::is_directory(directory, error) &&
        !std::filesystem::exists(std::filesystem::path(directory) / cFilesDirectory, error) &&
        !error)
        std::cerr << "vxsched: no host has run in " << Show(AbsolutePath(directory)).string
                  << "; set --directory or VXSCHED_DIRECTORY to select another directory\n";
}

// The second word of a time that was not quoted is read as the program, or as a task's name.
void CCommandLine::RequireQuotedTime() const {
    if (!task.at)
        return;
    std::vector<std::string> rest = selection.patterns;
    if (!task.command.empty())
        rest.push_back(task.command.front());
    for (const std::string& word : rest) {
        const std::string words = *task.at + ' ' + word;
        try {
            ParseTime(words, Now());
        } catch (const CParseError&) {
            continue;
        }
        throw CLI::ValidationError(
            "--at", fmt::format("quote a time of several words: --at \"{}\"", words));
    }
}

// The parser takes all words for names. Those after -- are the command of the edited tasks.
void CCommandLine::TakeCommandAfterSeparator(std::size_t words) {
    const auto first = selection.patterns.end() -
                       static_cast<std::ptrdiff_t>(std::min(words, selection.patterns.size()));
    task.command.assign(first, selection.patterns.end());
    selection.patterns.erase(first, selection.patterns.end());
}

// Takes the mark off every value that ProtectBrackets() may have marked.
void CCommandLine::RestoreBrackets() {
    const auto restore = [](std::string& value) {
        if (value.ends_with(cBracketMark))
            value.pop_back();
    };
    for (std::string* const value :
         {&directory, &until, &file, &crontab.user, &shell, &task.name, &calendarOptions.expression,
          &calendarOptions.zone, &calendarOptions.from, &historyOptions.since})
        restore(*value);
    for (std::optional<std::string>* const value :
         {&task.at, &task.every, &task.program, &task.parameter, &task.newName, &units}) {
        if (*value)
            restore(**value);
    }
    std::for_each(selection.patterns.begin(), selection.patterns.end(), restore);
    std::for_each(task.command.begin(), task.command.end(), restore);
    for (auto& [option, values] : task.options)
        std::for_each(values.begin(), values.end(), restore);
    for (auto& [option, value] : task.calendar)
        restore(value);
}

void CCommandLine::Parse(int argc, const char* const* argv) {
    const std::vector<std::string> arguments = ProtectBrackets(argc, argv);
    std::vector<const char*> pointers;
    pointers.reserve(arguments.size());
    for (const std::string& argument : arguments)
        pointers.push_back(argument.c_str());
    const auto begin = pointers.begin() + std::min(argc, 1);
    const auto end = pointers.end();
    beforeSeparator.assign(begin, std::find(begin, end, std::string_view("--")));
    try {
        app.parse(argc, pointers.data());
        std::erase_if(task.options, [](const auto& option) { return option.second.empty(); });
        RestoreBrackets();
        const auto left = end - begin - static_cast<std::ptrdiff_t>(beforeSeparator.size());
        if (app.got_subcommand("edit") && left > 0)
            TakeCommandAfterSeparator(static_cast<std::size_t>(left - 1));
        RequireQuotedTime();
    } catch (const CLI::ExtrasError&) {
        RequireQuotedTime();
        // The rest of a time that was not quoted is left over. Report the time: its message has the
        // remedy.
        if (task.at)
            ParseTime(*task.at, Now());
        if (!until.empty())
            ParseTime(until, Now());
        if (!calendarOptions.from.empty())
            ParseTime(calendarOptions.from, Now());
        if (!historyOptions.since.empty())
            ParsePastTime(historyOptions.since, Now());
        throw;
    }
}

std::string CCommandLine::MessageFor(const CLI::ParseError& error) const {
    const std::string reason = ReasonOf(error);
    // "--directory: ..." is about an option that only the general help describes.
    const bool isGeneral = app.get_subcommands().empty() ||
                           app.get_option_no_throw(reason.substr(0, reason.find(':'))) != nullptr;
    return fmt::format("{}. See vxsched {}--help.", reason,
                       isGeneral ? "" : app.get_subcommands().front()->get_name() + ' ');
}

std::string CCommandLine::ReasonOf(const CLI::ParseError& error) const {
    std::vector<std::string> unexpected = app.remaining();
    std::erase(unexpected, "--");
    const bool hasCommand = !app.get_subcommands().empty();
    // Without a command the parser reports that one is required, although it was only mistyped.
    if (!unexpected.empty() &&
        (!hasCommand || dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr))
        return ReasonOfUnexpected(unexpected);
    if (!hasCommand && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
        return "a command is required";
    return error.what();
}

std::string CCommandLine::ReasonOfUnknown(const std::string& typed) const {
    std::vector<std::string> commands;
    for (const CLI::App* const one : app.get_subcommands([](const CLI::App*) { return true; }))
        commands.push_back(one->get_name());
    const std::string_view nearest = FindNearest(typed, {commands.begin(), commands.end()});
    return fmt::format("unknown command \"{}\"{}", typed,
                       nearest.empty() ? "" : fmt::format(" (did you mean {}?)", nearest));
}

std::string CCommandLine::ReasonOfUnexpected(const std::vector<std::string>& unexpected) const {
    std::vector<std::string> options;
    std::vector<std::string> arguments;
    for (const std::string& one : unexpected) {
        const bool isOption =
            one.size() > 1 && one.starts_with('-') &&
            std::find(beforeSeparator.begin(), beforeSeparator.end(), one) != beforeSeparator.end();
        (isOption ? options : arguments).push_back(one);
    }
    const CLI::App* const command =
        app.get_subcommands().empty() ? nullptr : app.get_subcommands().front();
    if (command == nullptr && !arguments.empty())
        return ReasonOfUnknown(arguments.front());
    std::string reason;
    if (!options.empty()) {
        reason = Listed("unknown option", options);
        if (!task.command.empty())
            reason += "; write -- before the program to pass options to it";
    }
    if (arguments.empty())
        return reason;
    reason += (reason.empty() ? "" : "; ") + Listed("unexpected argument", arguments);
    const auto takesValue = [](const CLI::Option* option) {
        return option->get_expected_max() > 0;
    };
    return reason +
           (command->get_options(takesValue).empty() ? "" : "; quote an argument of several words");
}

// Adds to the message what the library leaves to its callers, which may not be this command: for a
// refused access whom the store is for, for a damaged table the file and the remedy, and, where they
// may be the reason, which semaphores nobody should use.
std::string CCommandLine::MessageFor(const CError& error) const {
    std::string message = error.what();
    if (error.Code() == EError::cDamaged) {
        const bool hasRemedy = message.find("repair the table") != std::string::npos;
        return fmt::format(
            "{}: {}{}", Show(AbsolutePath(TableFile(directory))).string, message,
            hasRemedy ? "" : "; run vxsched check for details, vxsched repair to repair it");
    }
    if (error.Code() == EError::cNoAccess)
        message += Show(NoteOfUsers(directory)).string;
    if (error.Code() == EError::cNoAccess || error.Code() == EError::cBusy ||
        error.Code() == EError::cFailed) {
        if (const std::string reason = WhySemaphoresAreRefused(directory); !reason.empty())
            message += "; " + reason;
    }
    return message;
}

TExitStatus CCommandLine::Run(int argc, const char* const* argv) {
    Parse(argc, argv);
    common.store.directory = directory;
    common.store.lockTimeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(lockTimeout * 1000));
    common.zone = utc ? EZone::cUtc : EZone::cLocal;
    common.forced = TForced(forced.begin(), forced.end());
    common.caller = getuid();
    if (mustBecomeOwner)
        BecomeForeignOwner(directory);
    if (file.empty() && shell.empty() && !app.got_subcommand("calendar"))
        WarnIfNoHostHasRun();
    common.store.onBegin = CInterruption::ChangeBegins;
    common.store.onRetry = CInterruption::ChangeIsRetried;
    common.store.onWarning = [](const std::string& warning) {
        std::cerr << "vxsched: " << Show(warning).string << '\n';
    };
    const CInterruption interruption;
    const TExitStatus status = chosen();
    try {
        output.Finish();
    } catch (const CError& error) {
        throw MakeError(error.Code(), "{}; the command itself was carried out", error.what());
    }
    return status;
}

}  // namespace vxsched
