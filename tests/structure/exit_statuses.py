#!/usr/bin/env python3
"""Compares the exit statuses in each program's header with those that its help and its document list.

exit_statuses.py SOURCE-DIRECTORY BUILD-DIRECTORY
"""
import os
import re
import subprocess
import sys

PROGRAMS = {"vxsched": ("cli/commands/ExitStatus.h", "README.md", "| Exit status |"),
            "vxschedd": ("host/ExitStatus.h", "docs/operating.md", "| Status |")}


def numbers(pattern, text):
    return [int(number) for number in re.findall(pattern, text, re.M)]


def main():
    source, build = sys.argv[1:]
    problems = []

    def read(path):
        with open(os.path.join(source, path), encoding="utf-8") as file:
            return file.read()

    for program, (header, document, heading) in PROGRAMS.items():
        constants = numbers(r"^    c\w+ = (\d+),", read(header))
        help_text = subprocess.run([os.path.join(build, "bin", program), "--help"], text=True, check=True,
                                   stdout=subprocess.PIPE).stdout
        table = read(document).split("\n" + heading, 1)[1].split("\n\n", 1)[0]
        for place, found in (("--help", numbers(r"\b(\d+) [a-z]", help_text.split("Exit status:", 1)[1])),
                             (document, numbers(r"^\| (\d+) \|", table))):
            if not constants or found != constants:
                problems.append("%s of %s lists %s, %s has %s" % (place, program, found, header, constants))
    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
