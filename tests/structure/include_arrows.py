#!/usr/bin/env python3
"""Compiles an include from each directory to each other one, and expects it to fail where no arrow leads.

include_arrows.py SOURCE-DIRECTORY BUILD-DIRECTORY
"""
import glob
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

# Each directory, and the ones whose headers its sources may include besides its own; docs/design.md draws them.
STORE = {"base", "calendar", "jobs"}
RUNS = STORE | {"store"}
CONTROL = RUNS | {"runs"}
CLIENT = RUNS | {"runs"}
HOST = {"base"}
RECOVERY = HOST | {"calendar", "host", "jobs", "store"}
CLI_TIME = STORE | {"store"}
CLI_OUTPUT = CLI_TIME | {"cli/time", "runs"}
CLI_COMMANDS = CLI_OUTPUT | {"cli/output", "client", "control"}
ARROWS = {
    "sync": set(),
    "addin": set(),
    "scheduler": {"sync", "addin"},
    "base": set(),
    "calendar": {"base"},
    "jobs": {"base", "calendar"},
    "crontab": {"base", "calendar"},
    "units": {"base", "calendar"},
    "store": STORE | {"scheduler"},
    "runs": RUNS,
    "control": CONTROL,
    "interpose": {"base"},
    "client": CLIENT,
    "client/change": CLIENT | {"client", "control", "interpose", "scheduler"},
    "host": HOST | {"runs"},  # all but main.cpp, which brings everything together
    "host/recovery": RECOVERY,
    "host/programs": RECOVERY | {"host/recovery", "interpose", "runs", "scheduler"},
    "host/startup": RECOVERY | {"host/recovery", "runs", "addin"},
    "host/service": RECOVERY | {"host/recovery", "host/programs", "control", "interpose", "runs"},
    "cli/time": CLI_TIME,
    "cli/output": CLI_OUTPUT,
    "cli/commands": CLI_COMMANDS,
    "cli": CLI_COMMANDS | {"cli/commands", "cli/exchange", "crontab", "units"},
    "cli/exchange": CLI_COMMANDS | {"cli/commands", "crontab", "units"},
}

# Headers without a directory of their own in an include: the support library's, and <vxsched/...>. They are seen by the
# directories named here and by all that have an arrow to one of these, but for the host's own directory.
LIBRARIES = {"support": ({"sync", "addin", "scheduler", "store", "host"}, "support/CEvent.h", "CEvent.h"),
             "include": ({"store"}, "include/vxsched/Table.h", "vxsched/Table.h")}


def main():
    source, build = (os.path.realpath(argument) for argument in sys.argv[1:])
    commands = {}  # of one source of each directory
    for entry in json.load(open(os.path.join(build, "compile_commands.json"))):
        directory = os.path.relpath(os.path.dirname(os.path.realpath(entry["file"])), source)
        if directory in ARROWS and os.path.basename(entry["file"]) != "main.cpp":
            commands.setdefault(directory, shlex.split(entry["command"]))
    headers = {directory: sorted(glob.glob(os.path.join(source, directory, "*.h"))) for directory in ARROWS}
    problems = ["no source of %s is compiled" % directory for directory in ARROWS if directory not in commands]

    def is_found(directory, header):
        command = commands[directory]
        options = [word for word in command[1:] if re.match(r"-(I|D|std=)", word)]
        options += ["-isystem" + command[index + 1] for index, word in enumerate(command) if word == "-isystem"]
        compiler = next(word for word in command if re.search(r"(\+\+|g\+\+|clang\+\+)(-[0-9]+)?$", word))
        text = "#if __has_include(\"%s\")\nfound\n#endif\n" % header
        run = subprocess.run([compiler, *options, "-E", "-P", "-x", "c++", "-"], input=text, text=True, cwd=build,
                             stdout=subprocess.PIPE, check=True)
        return "found" in run.stdout.split()

    def check(pair):
        directory, other = pair
        header = os.path.relpath(headers[other][0], source)
        wanted = other == directory or other in ARROWS[directory]
        if is_found(directory, header) != wanted:
            return "%s %s include \"%s\"" % (directory, "cannot" if wanted else "can", header)
        return None

    pairs = [(directory, other) for directory in commands for other in ARROWS if headers[other]]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        problems += filter(None, pool.map(check, pairs))

    for library, (users, path, header) in LIBRARIES.items():
        assert os.path.exists(os.path.join(source, path)), path
        for directory in commands:
            wanted = directory in users or bool(ARROWS[directory] & (users - {"host"}))
            if is_found(directory, header) != wanted:
                problems.append("%s %s include <%s>" % (directory, "cannot" if wanted else "can", header))

    # What is found without an arrow: a path that climbs out of its directory.
    for directory in ARROWS:
        for file in glob.glob(os.path.join(source, directory, "*.[hc]*")):
            if re.search(r'#include "[^"]*\.\./', open(file, errors="replace").read()):
                problems.append("%s includes a path with .." % os.path.relpath(file, source))

    print("%d pairs of directories tried" % len(pairs))
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems or len(pairs) < 200 else 0


if __name__ == "__main__":
    sys.exit(main())
