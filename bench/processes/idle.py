"""Measures vxschedd and cron while idle, at the same time: idle.py BUILD RESULT.json SECONDS

Each has 1,000 entries, none of them due. RESULT.json gets, for each, the memory (PSS, at the end), and the processor
time and wake-ups (voluntary context switches of all its threads) within SECONDS.
"""
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import isolation

ENTRIES = 1000
SETTLING = 5  # seconds, so that the startup is not measured


class Daemon:
    def __init__(self, name, command, log):
        self.name = name
        self.process = subprocess.Popen(command, env=isolation.ENVIRONMENT, stdin=subprocess.DEVNULL,
                                        stdout=log, stderr=log)
        self.directory = "/proc/%d" % self.process.pid

    def read(self, file):
        with open(os.path.join(self.directory, file)) as content:
            return content.read()

    def used(self):
        """Wake-ups and processor time in nanoseconds so far, and the threads that they were summed over."""
        threads = glob.glob(self.directory + "/task/*")
        wakes = processor = 0
        for thread in threads:
            thread = os.path.relpath(thread, self.directory)
            wakes += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", self.read(thread + "/status"), re.M)[1])
            processor += int(self.read(thread + "/schedstat").split()[0])
        return wakes, processor, sorted(threads)

    def memory(self):
        return int(re.search(r"^Pss:\s+(\d+)", self.read("smaps_rollup"), re.M)[1])

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()


def measure(daemons, seconds):
    time.sleep(SETTLING)
    before = [daemon.used() for daemon in daemons]
    time.sleep(seconds)
    results = []
    for daemon, (wakes, processor, threads) in zip(daemons, before):
        if daemon.process.poll() is not None:
            sys.exit("idle.py: %s has exited" % daemon.name)
        wakes_now, processor_now, threads_now = daemon.used()
        if threads_now != threads:
            sys.exit("idle.py: the threads of %s changed during the measurement" % daemon.name)
        results.append({"run_name": "idle/" + daemon.name, "run_type": "idle", "seconds": seconds,
                        "wake_ups": wakes_now - wakes, "cpu_time": processor_now - processor,
                        "memory": daemon.memory(), "threads": len(threads)})
    return results


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    build, result, seconds = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]), float(sys.argv[3])
    isolation.enter("--pid", "--fork", "--mount-proc")
    compare = isolation.can_compare()
    if not compare:
        print("cron is not measured: that needs root and the package cron.", file=sys.stderr)
    scratch = tempfile.mkdtemp(prefix="bench-")
    programs = os.path.join(build, "bench")
    daemons = []
    try:
        isolation.write_store(programs, scratch, ENTRIES)
        log = open(os.path.join(scratch, "log"), "w+")
        if compare:
            isolation.hide_entries(scratch)
            isolation.write_crontab(programs, os.path.join(scratch, "crontab"), ENTRIES)
            subprocess.run(["crontab", os.path.join(scratch, "crontab")], env=isolation.ENVIRONMENT, check=True)
            daemons.append(Daemon("cron", ["cron", "-f"], log))
        daemons.append(Daemon("vxschedd", [os.path.join(build, "bin", "vxschedd"), "--directory", scratch], log))
        results = measure(daemons, seconds)
    finally:
        for daemon in daemons:
            daemon.stop()
        shutil.rmtree(scratch, ignore_errors=True)
    with open(result, "w") as file:
        json.dump({"context": {}, "benchmarks": results}, file, indent=0)


main()
