"""Measures when vxschedd and cron launch jobs: lateness.py BUILD RESULT.json MINUTES [--quick]

In each of so many minutes one job is due, and then in a minute each 10, 100 and 1,000 jobs at once; with --quick only
the 10, and MINUTES is ignored. Those of cron are due at the beginning of a minute, those of vxschedd half a minute
later, so that neither waits for the other's. A job records the time at which it runs. RESULT.json gets, for each, the
median and the worst lateness of the single jobs, and the time from the due second to the last of the others.
"""
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import isolation

SIZES = (10, 100, 1000)
SECOND = 1_000_000_000
LONGEST = 30  # seconds until the last job runs


class Schedule:
    """What one daemon has to launch: {due second: the number of jobs}. The jobs of a second write to a file."""

    def __init__(self, build, scratch, name, first, minutes, sizes):
        self.program = os.path.join(build, "bench", "record_start")
        self.scratch = scratch
        self.name = name
        self.counts = {first + 60 * index: 1 for index in range(minutes)}
        self.sizes = {size: first + 60 * (minutes + index) for index, size in enumerate(sizes)}
        self.counts.update({due: size for size, due in self.sizes.items()})

    def file(self, due):
        return os.path.join(self.scratch, "%s-%d" % (self.name, due))

    def end(self):
        return max(self.counts) + LONGEST

    def lateness(self, due):
        """When each job of that second ran, in nanoseconds after it."""
        times = []
        if os.path.exists(self.file(due)):
            with open(self.file(due)) as file:
                times = [int(line) - due * SECOND for line in file]
        early = sum(time < 0 for time in times)
        if len(times) != self.counts[due] or early > 0:
            sys.exit("lateness.py: %s launched %d jobs instead of %d, %d of them too early" %
                     (self.name, len(times), self.counts[due], early))
        return times

    def results(self):
        single = [self.lateness(due)[0] for due, count in self.counts.items() if count == 1]
        found = {"last/%s/%d" % (self.name, size): max(self.lateness(due)) for size, due in self.sizes.items()}
        if single:
            found["median/" + self.name] = statistics.median(single)
            found["worst/" + self.name] = max(single)
        return [{"run_name": "punctual/" + name, "run_type": "iteration", "jobs": len(single), "real_time": value}
                for name, value in found.items()]

    def write_crontab(self):
        path = os.path.join(self.scratch, "crontab")
        with open(path, "w") as file:
            file.write('MAILTO=""\n')
            for due, count in self.counts.items():
                when = time.strftime("%M %H %d %m *", time.localtime(due))
                file.write("%s %s %s\n" % (when, self.program, self.file(due)) * count)
        subprocess.run(["crontab", path], env=isolation.ENVIRONMENT, check=True)

    def import_tasks(self, build):
        tasks = [{"name": "job %d of %d" % (number, due), "next": due, "last": 0, "period": 24,
                  "program": self.program, "parameter": self.file(due), "paused": False}
                 for due, count in self.counts.items() for number in range(count)]
        os.mkdir(os.path.join(self.scratch, "files"))
        subprocess.run([os.path.join(build, "bin", "vxsched"), "--directory", self.scratch, "import"],
                       input=json.dumps({"version": 1, "tasks": tasks}), text=True, env=isolation.ENVIRONMENT,
                       stdout=subprocess.DEVNULL, check=True)


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--quick"]
    if len(arguments) != 3:
        sys.exit(__doc__)
    build, result = map(os.path.abspath, arguments[:2])
    is_quick = len(arguments) < len(sys.argv) - 1
    minutes, sizes = (0, SIZES[:1]) if is_quick else (int(arguments[2]), SIZES)
    isolation.enter("--pid", "--fork", "--mount-proc")
    compare = isolation.can_compare()
    if not compare:
        print("cron is not measured: that needs root and the packages cron and at.", file=sys.stderr)
    scratch = tempfile.mkdtemp(prefix="bench-")
    # Ten seconds at least for the daemons to start.
    first = (int(time.time()) + 70) // 60 * 60
    schedules = [Schedule(build, scratch, "vxschedd", first + 30, minutes, sizes)]
    daemons = []
    try:
        log = open(os.path.join(scratch, "log"), "w")
        schedules[0].import_tasks(build)
        commands = [[os.path.join(build, "bin", "vxschedd"), "--directory", scratch]]
        if compare:
            isolation.hide_entries(scratch)
            schedules.append(Schedule(build, scratch, "cron", first, minutes, sizes))
            schedules[1].write_crontab()
            commands.append(["cron", "-f"])
        for command in commands:
            daemons.append(subprocess.Popen(command, env=isolation.ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=log,
                                            stderr=log))
        time.sleep(max(schedule.end() for schedule in schedules) - time.time())
        results = [entry for schedule in schedules for entry in schedule.results()]
    finally:
        for daemon in daemons:
            daemon.terminate()
            daemon.wait()
        shutil.rmtree(scratch, ignore_errors=True)
    with open(result, "w") as file:
        json.dump({"context": {}, "benchmarks": results}, file, indent=0)


main()
