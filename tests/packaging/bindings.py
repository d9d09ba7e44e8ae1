#!/usr/bin/env python3
"""Runs vxschedd --run-once and vxsched run, reads how the dynamic linker bound their symbols, and fails when a call of
the add-in goes past a function that the program interposes, or when the program interposes anything else.

bindings.py BUILD-DIRECTORY
"""
import glob
import os
import re
import subprocess
import sys
import tempfile

from elf_files import plain_name, read

# The functions of libc that vxschedd and vxsched-change interpose. The add-in calls each of them by this very name.
INTERPOSED = {"time", "stat", "posix_spawn", "waitpid", "sleep", "semctl", "semop"}
ADDIN = "libVantrixScheduler.so"
SUPPORT = "libvxcsupport.so.0"
BINDING = re.compile(r"binding file (.+) \[\d+\] to (.+) \[\d+\]: \w+ symbol `(.+?)'")


def bindings_of(program, command):
    """The bindings of the process that runs `program`, as triples: the object that uses a symbol, the one that defines
    it, the symbol."""
    with tempfile.TemporaryDirectory() as directory:
        os.mkdir(os.path.join(directory, "files"))
        run = subprocess.run(command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env={
            **os.environ, "LD_DEBUG": "bindings", "LD_DEBUG_OUTPUT": os.path.join(directory, "bindings")})
        if run.returncode != 0:
            sys.exit("%s failed with %d:\n%s" % (" ".join(command), run.returncode, run.stdout))
        for path in glob.glob(os.path.join(directory, "bindings.*")):
            found = [tuple(map(os.path.basename, match)) for match in BINDING.findall(open(path).read())]
            if any(user == ADDIN for user, _, _ in found) and any(user == program for user, _, _ in found):
                return found
    sys.exit("%s: no process of %s loaded the add-in" % (" ".join(command), program))


def problems_of(program, path, found):
    exported = {line.split()[-1] for line in read("nm", "-D", "--defined-only", path).splitlines()}
    for name in sorted(exported - INTERPOSED):
        yield "%s exports %s, which it has no reason to interpose" % (program, name)
    for name in sorted(INTERPOSED - exported):
        yield "%s does not export %s" % (program, name)
    for user, definer, symbol in found:
        if definer == program and symbol not in INTERPOSED:
            yield "%s of %s is bound to %s" % (symbol, user, program)
        if user not in (ADDIN, SUPPORT):
            continue
        if symbol in INTERPOSED and definer != program:
            yield "%s of %s is bound to %s, not to %s" % (symbol, user, definer, program)
        if plain_name(symbol) in INTERPOSED and plain_name(symbol) != symbol:
            yield "%s calls %s, which the interposed %s of %s does not see" % (user, symbol, plain_name(symbol), program)
        if re.match(r"_ZNK?5COpen", symbol) and definer != SUPPORT:
            yield "%s of %s is bound to %s, not to %s" % (symbol, user, definer, SUPPORT)
    used = {symbol for user, _, symbol in found if user == ADDIN}
    for name in sorted(INTERPOSED - used):
        yield "%s does not call %s by that name" % (ADDIN, name)
    if "_ZN5COpenC1EPKcij" not in used:
        yield "%s does not open its files with COpen" % ADDIN


def main():
    # The rest runs in its own IPC namespace. An unprivileged user can create one only together with a user namespace.
    if "BINDINGS_INSIDE" not in os.environ:
        os.environ["BINDINGS_INSIDE"] = "1"
        is_permitted = subprocess.run(["unshare", "--ipc", "true"], stderr=subprocess.DEVNULL).returncode == 0
        options = ["--ipc"] if is_permitted else ["--user", "--map-current-user", "--ipc"]
        os.execvp("unshare", ["unshare", *options, sys.executable, *sys.argv])

    build = os.path.realpath(sys.argv[1])
    host = os.path.join(build, "bin", "vxschedd")
    change = os.path.join(build, "lib", "vantrix", "vxsched-change")
    tool = os.path.join(build, "bin", "vxsched")
    run = ["sh", "-c", '"$0" create backup --at "2099-01-01 00:00" -- /bin/true && exec "$0" run backup', tool]
    problems = []
    for program, command in ((host, [host, "--directory", ".", "--run-once"]), (change, run)):
        name = os.path.basename(program)
        found = bindings_of(name, command)
        print("%d symbols of %s and its libraries are bound" % (len(found), name))
        problems += problems_of(name, program, found)

    for problem in sorted(set(problems)):
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
