// The commands for a store as a whole: repair, export, import, apply and completion; and their options.

#include "cli/ArgumentChecks.h"
#include "cli/CCommandLine.h"

namespace vxsched {

void CCommandLine::AddCrontabOptions(CLI::App& import, CLI::Option* whole) {
    CLI::Option* const isOf =
        import.add_flag("--crontab", isCrontab, "The file is a crontab; each job becomes a task")
            ->excludes(whole);
    CLI::Option* const user =
        import
            .add_option("--user", crontab.user, "Whose crontab it is; the tasks run as this user")
            ->type_name("USER")
            ->needs(isOf);
    import
        .add_flag("--system", crontab.isSystem,
                  "A crontab of the system, or a directory of these: each line has a user")
        ->needs(isOf)
        ->excludes(user);
    import.add_flag("--partial", crontab.isPartial, "Import the jobs of a file with wrong lines")
        ->needs(isOf);
    const auto takeDialect = [this](const std::string& dialect) {
        crontab.isCronie = dialect == "cronie";
    };
    import
        .add_option_function<std::string>(
            "--dialect", takeDialect, "Whose crontab it is: debian, or cronie, which has CRON_TZ")
        ->type_name("CRON")
        ->check(OneOf({"debian", "cronie"}))
        ->needs(isOf);
}

void CCommandLine::AddMaintenance() {
    Add(
        "repair", "Repair a damaged table, keeping every task that can be read",
        [this] { return Repair(common, output); }, [this](CLI::App& repair) { AddDryRun(repair); },
        EIdentity::cCaller);
    Add(
        "export", "Print the table as JSON, or as what other schedulers read",
        [this] {
            return isCrontab ? ExportCrontab(common, crontab.isSystem, output)
                   : isToml  ? ExportToml(common, output)
                   : units   ? ExportSystemd(common, *units, output)
                             : Export(common, output);
        },
        [this](CLI::App& added) {
            CLI::Option* const isOf =
                added.add_flag("--crontab", isCrontab,
                               "Print a crontab, and to standard error what it cannot say");
            added
                .add_flag("--system", crontab.isSystem,
                          "A crontab of the system: each line has a user")
                ->needs(isOf);
            CLI::Option* const isFile =
                added
                    .add_flag(
                        "--toml", isToml,
                        "Print a file of tasks, which apply reads, and to standard error what it "
                        "cannot say")
                    ->excludes(isOf);
            added
                .add_option("--systemd", units,
                            "Write a timer and a service for each task into this directory, a new "
                            "or an empty one")
                ->type_name("DIR")
                ->excludes(isOf)
                ->excludes(isFile);
        });
    Add(
        "apply", "Have the tasks be as a file under version control says",
        [this] { return Apply(common, file, prune, output); },
        [this](CLI::App& apply) {
            apply
                .add_option("file", file,
                            "A TOML file of tasks, or a directory of *.toml files; - is standard "
                            "input")
                ->type_name("FILE|DIRECTORY")
                ->required();
            apply.add_flag("--prune", prune,
                           "Remove the tasks that an earlier apply of the file has made and that "
                           "it has no more");
            apply.add_flag("--json", common.json, "Print JSON, with the version of its format");
            AddChangeOptions(apply);
            AddForce(apply);
        },
        EIdentity::cCaller);
    Add(
        "import", "Import the tasks of an export, or the jobs of a crontab",
        [this] {
            const std::string& from = file.empty() ? "-" : file;
            if (isCrontab)
                return ImportCrontab(common, from, crontab, merge, output);
            return Import(common, from,
                          replace ? EImport::cReplace
                          : merge ? EImport::cMerge
                                  : EImport::cAdd,
                          output);
        },
        [this](CLI::App& import) {
            import.add_option("file", file, "File to read; standard input if omitted or -")
                ->type_name("FILE");
            CLI::Option* const whole =
                import.add_flag("--replace", replace, "Replace the whole table");
            import.add_flag("--merge", merge, "Overwrite tasks that have the same name")
                ->excludes(whole);
            AddCrontabOptions(import, whole);
            AddChangeOptions(import);
        },
        EIdentity::cCaller);
    Add(
        "completion", "Print the completion script for a shell",
        [this] { return PrintCompletion(shell, output); },
        [this](CLI::App& completion) {
            completion.add_option("shell", shell, "bash, zsh or fish")
                ->type_name("SHELL")
                ->required()
                ->check(OneOf({"bash", "zsh", "fish"}));
        },
        EIdentity::cCaller);
}

}  // namespace vxsched
