#include "host/HostOptions.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

#include "host/CHostError.h"

// The add-in beside this program: in the library folder of the build or of the installation.
static std::string DefaultAddIn() {
    std::string name = "libVantrixScheduler.so";
    std::error_code ignored;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ignored);
    const std::filesystem::path root = self.parent_path().parent_path();
    for (const char* folder : {"lib", VXSCHEDD_LIBRARY_FOLDER}) {
        const std::filesystem::path candidate = root / folder / name;
        if (std::filesystem::exists(candidate, ignored))
            return candidate.string();
    }
    return name;
}

std::optional<THostOptions> ParseHostOptions(int argc, const char* const* argv) {
    CLI::App app(
        "Runs the scheduler add-in in the foreground until SIGTERM or SIGINT.\n"
        "Programs that it starts inherit its standard input, output and error.",
        "vxschedd");
    THostOptions options{.directory = "", .addIn = DefaultAddIn()};
    app.add_option(
           "--directory", options.directory,
           "Directory to work in; the table is DIR/files/scheduler.dat, \"files\" is created")
        ->type_name("DIR")
        ->required();
    app.add_option("--addin", options.addIn, "The add-in's library")
        ->type_name("PATH")
        ->capture_default_str();
    app.set_version_flag("--version", "vxschedd " VXSCHEDD_VERSION);
    app.footer(
        "Exit status: 0 stopped cleanly, 1 failed, 2 wrong usage, 3 the directory cannot be worked "
        "in,\n"
        "4 another host runs there, 5 the add-in cannot be loaded.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {
        app.exit(request, std::cout, std::cerr);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw CHostError(cUsage,
                         std::string(error.what()) + ". Run vxschedd --help for the options.");
    }
    // A path of the caller's working directory, which the host is about to leave.
    if (options.addIn.find('/') != std::string::npos)
        options.addIn = std::filesystem::absolute(options.addIn).string();
    return options;
}
