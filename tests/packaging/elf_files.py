#!/usr/bin/env python3
"""Reads every ELF file of the build's bin/ and lib/, and of an installation, and fails when one is not hardened, looks
for libraries in the working directory, or exports what it should not.

elf_files.py SOURCE-DIRECTORY BUILD-DIRECTORY
"""
import json
import os
import re
import subprocess
import sys
import tempfile

HARDENING = ["-fstack-protector-strong", "-fstack-clash-protection", "-fcf-protection", "-fvisibility=hidden"]
PRODUCT = ("scheduler/ addin/ sync/ support/ base/ calendar/ store/ runs/ runner/ interpose/ client/ host/ cli/").split()
SONAMES = {"libVantrixScheduler.so": "libVantrixScheduler.so", "libvxcsupport.so": "libvxcsupport.so.0",
           "libvxsched-client.so": "libvxsched-client.so.0"}
PROGRAMS = {"vxschedd", "vxsched", "vxsched-change", "vxrun"}
ENDBR64 = b"\xf3\x0f\x1e\xfa"


def read(tool, *arguments):
    return subprocess.run([tool, *arguments], check=True, stdout=subprocess.PIPE, text=True).stdout


def plain_name(symbol):
    """The function of libc that a symbol is another name of: stat for stat64 and __xstat64, read for __read_chk."""
    for _ in range(2):
        symbol = re.sub(r"^__(x(?=l?f?stat))?|64(_2)?$|_2$|_chk$", "", symbol)
    return symbol


def elf_files(*directories):
    for directory in directories:
        for parent, _, names in os.walk(directory):
            for name in names:
                path = os.path.join(parent, name)
                if not os.path.islink(path) and open(path, "rb").read(4) == b"\x7fELF":
                    yield path


def problems_of(path):
    dynamic = read("readelf", "-dW", path)
    headers = read("readelf", "-hlW", path)
    if not re.search(r"Type:\s+DYN", headers):
        yield "is not position-independent"
    if "GNU_RELRO" not in headers or "BIND_NOW" not in dynamic:
        yield "does not bind all symbols before it starts, read-only from then on"
    if re.search(r"GNU_STACK.* RWE", headers):
        yield "has an executable stack"
    if "RPATH)" in dynamic or "TEXTREL" in dynamic:
        yield "has an RPATH or text relocations"
    for entry in re.findall(r"RUNPATH\).*\[(.*)\]", dynamic):
        for directory in entry.split(":"):
            if directory != "$ORIGIN" and not directory.startswith("$ORIGIN/"):
                yield "searches the directory %r for libraries" % directory
    if "__stack_chk_fail" not in read("nm", "-D", "--undefined-only", path):
        yield "has no stack protector"
    if ENDBR64 not in open(path, "rb").read():
        yield "has no landing pads for indirect branches"
    soname = re.search(r"SONAME\).*\[(.*)\]", dynamic)
    base = re.sub(r"\.so\..*", ".so", os.path.basename(path))
    if base in SONAMES and (not soname or soname.group(1) != SONAMES[base]):
        yield "has the SONAME %s" % (soname.group(1) if soname else "none")


def main():
    source, build = (os.path.realpath(argument) for argument in sys.argv[1:])
    problems = []
    with tempfile.TemporaryDirectory() as installed:
        subprocess.run(["cmake", "--install", build, "--prefix", installed], check=True, stdout=subprocess.DEVNULL)
        built = list(elf_files(os.path.join(build, "bin"), os.path.join(build, "lib")))
        shipped = list(elf_files(installed))
        for path in built + shipped:
            problems += ["%s %s" % (os.path.relpath(path, build if path in built else installed), problem)
                         for problem in problems_of(path)]
        print("%d ELF files of the build and %d of the installation read" % (len(built), len(shipped)))
        problems += ["%s is not installed" % name for name in PROGRAMS - set(map(os.path.basename, shipped))]
        if len(built) < 9 or len(shipped) < 7:
            problems.append("files are missing")

    # The programs and libraries of the tests are not shipped, but are run from any directory as well.
    others = [path for path in elf_files(build) if not path.endswith(".o") and path not in built]
    for path in others:
        for entry in re.findall(r"RUNPATH\).*\[(.*)\]", read("readelf", "-dW", path)):
            if not all(directory.startswith("$ORIGIN") for directory in entry.split(":")):
                problems.append("%s searches %r for libraries" % (os.path.relpath(path, build), entry))
    print("%d ELF files of tests and benchmarks read" % len(others))

    compiled = 0
    for entry in json.load(open(os.path.join(build, "compile_commands.json"))):
        if os.path.relpath(entry["file"], source).startswith(tuple(PRODUCT)):
            compiled += 1
            missing = [option for option in HARDENING if option not in entry["command"].split()]
            if "-O2" in entry["command"].split() and "-D_FORTIFY_SOURCE=2" not in entry["command"].split():
                missing.append("-D_FORTIFY_SOURCE=2")
            problems += ["%s is compiled without %s" % (entry["file"], option) for option in missing]
    if compiled < 80:
        problems.append("only %d sources of the product are compiled" % compiled)

    # A fortified call of one of these would go past what a program or test defines in front of libc.
    interposed = "open read write close stat semop time sleep posix_spawn waitpid".split()
    for name in ("libVantrixScheduler.so", "libvxcsupport.so"):
        for symbol in re.findall(r"U (\S+?)(?:@|$)", read("nm", "-D", "--undefined-only",
                                                          os.path.join(build, "lib", name)), re.MULTILINE):
            plain = plain_name(symbol)
            if plain != symbol and plain in interposed:
                problems.append("%s calls %s, which no interposed %s sees" % (name, symbol, plain))

    # libvxsched-client exports what its headers declare, all of it and nothing else.
    declared = "".join(open(os.path.join(source, "include", "vxsched", name)).read()
                       for name in os.listdir(os.path.join(source, "include", "vxsched")))
    library = os.path.join(build, "lib", "libvxsched-client.so")
    exported = [line.split(maxsplit=2)[2] for line in read("nm", "-DC", "--defined-only", library).splitlines()]
    names = {re.sub(r"\[abi:\w+\]|\(.*", "", re.sub(r"^(typeinfo|typeinfo name|vtable) for ", "", name))
             for name in exported}
    for name in names:
        parts = name.removeprefix("vxsched::").removeprefix("~").split("::")
        if not name.startswith(("vxsched::", "vxsched_")) or \
                not all(re.search(r"\b%s\b" % part.lstrip("~"), declared) for part in parts):
            problems.append("libvxsched-client.so exports %s, which no public header declares" % name)
    marked = re.findall(r"^(?:class |struct )?VXSCHED_PUBLIC [^;{]*?\b(\w+)(?:\(| \{| :)", declared, re.MULTILINE)
    if len(marked) < 25:
        problems.append("only %d declarations are marked as public" % len(marked))
    for name in marked:
        if not any(name in exported.split("::") for exported in names):
            problems.append("libvxsched-client.so does not export %s" % name)

    # So does the support library.
    declared = "".join(open(os.path.join(source, "support", name)).read()
                       for name in os.listdir(os.path.join(source, "support")) if name.endswith(".h"))
    library = os.path.join(build, "lib", "libvxcsupport.so")
    for line in read("nm", "-DC", "--defined-only", library).splitlines():
        name = re.sub(r"\[abi:\w+\]|\(.*", "", re.sub(r"^(typeinfo name|typeinfo|vtable) for ", "",
                                                      line.split(maxsplit=2)[2]))
        if not all(re.search(r"\b%s\b" % part.lstrip("~"), declared) for part in name.split("::")):
            problems.append("libvxcsupport.so exports %s, which no header of it declares" % name)

    for problem in problems:
        print(problem, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
