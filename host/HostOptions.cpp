#include "host/HostOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <filesystem>
#include <iostream>

#include "base/FindLibraryDirectory.h"
#include "host/CHostError.h"
#include "runs/RunRequest.h"

// The add-in next to this program, in the library directory of the build or of the installation;
// else its bare name, which the dynamic linker looks up. Empty if the path of this program cannot be
// read: a path relative to the present directory would lead to anybody's library.
static std::string DefaultAddIn() {
    const std::string name = "libVantrixScheduler.so";
    const std::filesystem::path directory = FindLibraryDirectory(name, VXSCHEDD_LIBRARY_DIRECTORY);
    if (directory.empty())
        return "";
    const std::filesystem::path path = directory / name;
    std::error_code ignored;
    return std::filesystem::exists(path, ignored) ? path.string() : name;
}

// A terabyte. A negative number is parsed as a far larger one, so this limit refuses it.
static constexpr std::uint64_t cLargestSize = std::uint64_t{1} << 40;

// Seconds. A worker that launches nothing for longer counts as stuck (CWorkerWatchdog).
static constexpr int cLongestPause = 10;

// The path is relative to the directory that the host was started in, which it is about to leave.
static void MakeAbsolute(std::string& path) {
    path = std::filesystem::absolute(path).string();
}

// An option in whole seconds.
static void AddSeconds(CLI::App& app, const char* name, std::chrono::seconds& seconds, int longest,
                       const char* description) {
    const auto read = [=, &seconds](const std::string& argument) {
        int value = -1;
        const char* const end = argument.data() + argument.size();
        const auto [parsed, error] = std::from_chars(argument.data(), end, value);
        if (error != std::errc() || parsed != end || value < 0 || value > longest)
            throw CLI::ValidationError(
                name,
                fmt::format("expected whole seconds from 0 to {}, not \"{}\"", longest, argument));
        seconds = std::chrono::seconds(value);
    };
    app.add_option_function<std::string>(name, read, description)
        ->type_name("SECONDS")
        ->default_str(std::to_string(seconds.count()));
}

static void DescribeOptions(CLI::App& app, THostOptions& options) {
    app.add_option(
           "--directory", options.directory,
           "Directory to work in. The table is DIR/files/scheduler.dat; \"files\" is created")
        ->type_name("DIR")
        ->required();
    app.add_option("--addin", options.addIn, "Library of the add-in")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option("--log", options.logFile,
                   "Append the log to this file instead of standard error; SIGHUP reopens it")
        ->type_name("FILE");
    app.add_option(
           "--output", options.output,
           "Where the output of launched programs is copied to: where the host writes, to the "
           "journal, or nowhere; vxsched output prints what --output-size keeps")
        ->type_name("inherit|journal|none")
        ->check(CLI::IsMember({"inherit", "journal", "none"}).description(""))
        ->capture_default_str();
    app.add_option("--output-size", options.outputSize,
                   "How much of the output of each run is kept, its end (1 MiB); 0 keeps none")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(std::uint64_t{0}, cLargestSize).description(""));
    app.add_option("--history-size", options.historySize,
                   "Size beyond which files/history.jsonl is moved to .1 (1 MiB); 0 disables the "
                   "history")
        ->type_name("SIZE")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(std::uint64_t{0}, cLargestSize).description(""));
    app.add_option("--snapshots", options.snapshots,
                   "Number of valid tables to keep in files/snapshots; 0 keeps none")
        ->type_name("COUNT")
        ->capture_default_str()
        ->check(CLI::Range(std::size_t{0}, std::size_t{100'000}).description(""));
    AddSeconds(app, "--lock-timeout", options.lockTimeout, 3600,
               "Seconds to wait at startup and exit for clients that are changing the table");
    AddSeconds(app, "--launch-pause", options.launchPause, cLongestPause,
               "Seconds to pause after each launch; clients and later launches wait meanwhile");
    auto* const check = app.add_flag(
        "--check", options.check, "Check whether a host could run here, change nothing, and exit");
    app.add_flag("--run-once", options.runOnce,
                 "Launch what is due now, wait for these programs, and exit")
        ->excludes(check);
    app.add_flag_callback(
        "--network-directory", [&options] { options.network = ENetwork::cPermitted; },
        "Work in a directory on a network file system; something else must keep hosts on "
        "other machines away");
    app.set_version_flag("--version", "vxschedd " VXSCHEDD_VERSION);
    app.footer(
        "A size is a number of bytes, or has a unit: 64kb, 16mb.\n"
        "Signals: SIGTERM and SIGINT stop the host, SIGHUP reopens the log, SIGUSR1 ticks at "
        "once.\n"
        "Exit status: 0 stopped cleanly, 1 failed, 2 invalid command line, 3 the directory cannot\n"
        "be used, 4 another host runs there, 5 the add-in cannot be loaded, 6 the table cannot be\n"
        "read or repaired, 7 the store's semaphores cannot be used.");
}

std::optional<THostOptions> ParseHostOptions(int argc, const char* const* argv) {
    CLI::App app("Runs the scheduler add-in in the foreground until SIGTERM or SIGINT.",
                 "vxschedd");
    THostOptions options;
    options.historySize = cDefaultHistorySize;
    options.outputSize = cDefaultOutputSize;
    options.addIn = DefaultAddIn();
    DescribeOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {
        app.exit(request, std::cout, std::cerr);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw CHostError(cUsage,
                         std::string(error.what()) + ". Run vxschedd --help for the options.");
    }
    if (options.addIn.empty())
        throw CHostError(cNoAddIn,
                         "cannot read /proc/self/exe, from which the add-in is found. Mount /proc, "
                         "or pass the add-in's path with --addin.");
    if (options.addIn.find('/') != std::string::npos)
        MakeAbsolute(options.addIn);
    if (!options.logFile.empty())
        MakeAbsolute(options.logFile);
    return options;
}
