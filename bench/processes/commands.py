"""Measures vxsched, crontab and at: commands.py BUILD RESULT.json [--quick]

For each number of entries all commands run in turn, in random order; the cost of each run goes to RESULT.json, in the
format of Google Benchmark's results. Each command runs once before, and its output or effect is checked.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile

import isolation

ITERATIONS = {10: 150, 100: 150, 1000: 60, 10000: 20}
DUE = "3 days"


def check(holds, message):
    if not holds:
        sys.exit("commands.py: " + message)


def run(command):
    done = subprocess.run(command, env=isolation.ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    check(done.returncode == 0, "%s failed: %s" % (" ".join(command), done.stderr))
    return done.stdout


class Commands:
    """The commands for one number of entries, as lines for measure_processes."""

    def __init__(self, build, scratch, count):
        self.programs = os.path.join(build, "bench")
        self.vxsched = os.path.join(build, "bin", "vxsched")
        self.scratch = scratch
        self.count = count
        self.lines = []

    def add(self, name, command, preparation=""):
        path = shutil.which(command[0])
        self.lines.append("\t".join(["process/" + name, preparation, path] + command[1:]))

    def add_ours(self):
        directory = os.path.join(self.scratch, "store-%d" % self.count)
        table = os.path.join(directory, "files", "scheduler.dat")
        isolation.write_store(self.programs, directory, self.count)
        shutil.copy(table, table + ".measured")
        ask = [self.vxsched, "--directory", directory]
        listed = run(ask + ["list"]).splitlines()
        check(len(listed) == self.count + 3, "vxsched list shows %d lines" % len(listed))
        check(len(run(ask + ["next"]).splitlines()) == 11, "vxsched next does not show ten runs")
        # As long as the other tasks: 32 bytes of path, 48 of parameter.
        program = os.path.join(self.scratch, "report").ljust(32, "0")
        if not os.path.exists(program):
            os.symlink("/bin/sleep", program)
        create = ask + ["create", "nightly-report-of-today-", "--at", "in 3d", "--every", "1d", "--", program,
                        "--configuration /etc/vantrix/report-00000000.conf"[:48]]
        restore = "cp %s.measured %s" % (table, table)
        run(create)
        check(len(run(ask + ["list", "--names"]).splitlines()) == self.count + 1, "vxsched create made no task")
        run(["sh", "-c", restore])
        self.add("list/vxsched/%d" % self.count, ask + ["list"])
        self.add("next/vxsched/%d" % self.count, ask + ["next"])
        self.add("create/vxsched/%d" % self.count, create, restore)
        self.add("nothing/static program/%d" % self.count, [os.path.join(self.programs, "static_program")])
        self.add("nothing/linked as vxsched/%d" % self.count, [os.path.join(self.programs, "linked_program")])
        self.add("nothing/vxsched --version/%d" % self.count, [self.vxsched, "--version"])

    def add_crontab(self):
        path = os.path.join(self.scratch, "crontab-%d" % self.count)
        isolation.write_crontab(self.programs, path, self.count)
        run(["crontab", path])
        lines = [line for line in run(["crontab", "-l"]).splitlines() if not line.startswith("#")]
        check(len(lines) == self.count, "crontab -l shows %d lines" % len(lines))
        self.add("list/crontab/%d" % self.count, ["crontab", "-l"])
        self.add("create/crontab/%d" % self.count, ["crontab", path])

    def add_at(self):
        jobs = os.path.join(isolation.SPOOL, "atjobs")
        for name in os.listdir(jobs):
            if name != ".SEQ":
                os.remove(os.path.join(jobs, name))
        self.write_sequence(jobs, 0)
        script = os.path.join(self.scratch, "script")
        with open(script, "w") as file:
            file.write("/opt/vantrix/bin/report-00000000 --configuration /etc/vantrix/report-00000000\n")
        add = ["at", "-f", script, "now", "+", *DUE.split()]
        run(add)
        first = [name for name in os.listdir(jobs) if name != ".SEQ"][0]
        minute = first[6:]
        for number in range(2, self.count + 1):
            copy = os.path.join(jobs, "a%05x%s" % (number, minute))
            shutil.copy2(os.path.join(jobs, first), copy)
            status = os.stat(os.path.join(jobs, first))
            os.chown(copy, status.st_uid, status.st_gid)
        self.write_sequence(jobs, self.count)
        check(len(run(["atq"]).splitlines()) == self.count, "atq does not show %d jobs" % self.count)
        restore = "rm -f %s/a%05x*; printf %%05x %d > %s/.SEQ" % (jobs, self.count + 1, self.count, jobs)
        run(add)
        check(len(run(["atq"]).splitlines()) == self.count + 1, "at did not create a job")
        run(["sh", "-c", restore])
        check(len(run(["atq"]).splitlines()) == self.count, "the new job could not be removed")
        self.add("list/atq/%d" % self.count, ["atq"])
        self.add("create/at/%d" % self.count, add, restore)

    @staticmethod
    def write_sequence(jobs, number):
        with open(os.path.join(jobs, ".SEQ"), "w") as file:
            file.write("%05x" % number)

    def measure(self, iterations):
        command = [os.path.join(self.programs, "measure_processes"), str(iterations)]
        done = subprocess.run(command, env=isolation.ENVIRONMENT, input="\n".join(self.lines) + "\n", text=True,
                              stdout=subprocess.PIPE)
        check(done.returncode == 0, "a measured command failed")
        return [line.split("\t") for line in done.stdout.splitlines()]


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--quick"]
    if len(arguments) != 2:
        sys.exit(__doc__)
    build, result = map(os.path.abspath, arguments)
    isolation.enter()
    compare = isolation.can_compare()
    if not compare:
        print("crontab and at are not measured: that needs root and the packages cron and at.", file=sys.stderr)
    runs = []
    # In memory, like the directories of the other schedulers.
    scratch = tempfile.mkdtemp(prefix="bench-", dir="/dev/shm" if not compare else "/tmp")
    try:
        if compare:
            isolation.mount_over(scratch)
            isolation.hide_entries(scratch)
        for count in ITERATIONS:
            commands = Commands(build, scratch, count)
            commands.add_ours()
            if compare:
                commands.add_crontab()
                commands.add_at()
            runs += commands.measure(1 if "--quick" in sys.argv else ITERATIONS[count])
    finally:
        if compare:
            subprocess.run(["umount", "--lazy", scratch])
        shutil.rmtree(scratch, ignore_errors=True)
    benchmarks = [{"run_name": name, "run_type": "iteration", "real_time": float(real), "cpu_time": float(processor),
                   "peak_memory": int(memory)} for name, real, processor, memory in runs]
    with open(result, "w") as file:
        json.dump({"context": {}, "benchmarks": benchmarks}, file, indent=0)


main()
