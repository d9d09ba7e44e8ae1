"""Measures what the runner costs: runner.py BUILD RESULT.json [--quick]

Launches a small program through vxrun and directly, alternately, from start to end; and has two hosts, of which one has
no vxrun next to it, launch 10, 100 and 1,000 jobs that are due at once, one host after the other; with --quick only the
10. In the due second a client creates a task, which waits for the tick. Then a host launches 100 jobs of which each is
due a second after the one before; with --quick 3. A job records the time at which it runs. Two jobs that wait are
launched as well. RESULT.json gets the time of each launch, for each burst the time from the due second to the last job
and the client's wait, of the single jobs the median and the worst lateness, and the memory that the runner of a waiting
job shares with no other process.
"""
import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import isolation

SIZES = (10, 100, 1000)
SINGLES = 100
SECOND = 1_000_000_000
LONGEST = 60  # seconds until the last job of a burst runs
WAYS = ("vxrun", "direct")


def launch(build, way):
    """The nanoseconds of one launch, by the clock and of processor time."""
    program = os.path.join(build, "bench", "static_program")
    command = [os.path.join(build, "bin", "vxrun"), program] if way == "vxrun" else [program]
    reader, writer = os.pipe()
    os.set_inheritable(writer, True)
    environment = {**isolation.ENVIRONMENT, "VXSCHED_TASK": "job", "VXSCHED_DUE": "0",
                   "VXSCHED_RUN": "1 %d -1 schedule 1048576 1048576 0" % writer}
    begin = time.monotonic_ns()
    process = os.posix_spawn(command[0], command, environment)
    _, status, usage = os.wait4(process, 0)
    end = time.monotonic_ns()
    os.close(reader)
    os.close(writer)
    if status != 0:
        sys.exit("runner.py: %s ended with %d" % (command, status))
    return end - begin, int((usage.ru_utime + usage.ru_stime) * SECOND)


def start_job(build):
    """The process of the runner of a job whose program runs."""
    reader, writer = os.pipe()
    os.set_inheritable(writer, True)
    environment = {**isolation.ENVIRONMENT, "VXSCHED_TASK": "job", "VXSCHED_DUE": "0",
                   "VXSCHED_RUN": "1 %d -1 schedule 1048576 1048576 0" % writer}
    runner = os.path.join(build, "bin", "vxrun")
    line = "--overlap allow --timeout 1h --retry 1 -- /usr/bin/sleep 1000"
    process = os.posix_spawn(runner, [runner, runner, line], environment)
    os.close(writer)
    os.read(reader, 4096)  # the report
    os.close(reader)
    return process


def private_memory(build):
    """The bytes of memory that one of two runners shares with no process: both have the same code."""
    runners = [start_job(build), start_job(build)]
    time.sleep(1)  # until they wait for the programs' ends
    with open("/proc/%d/smaps_rollup" % runners[0]) as file:
        kibibytes = [int(line.split()[1]) for line in file if line.startswith("Private_")]
    for runner in runners:
        os.kill(runner, signal.SIGTERM)
        os.waitpid(runner, 0)
    return 1024 * sum(kibibytes)


def launches(build, scratch, count):
    os.chdir(scratch)
    os.mkdir("files")
    results = []
    for _ in range(count):
        for way in WAYS:
            real, cpu = launch(build, way)
            results.append({"run_name": "runner/launch/" + way, "run_type": "iteration", "real_time": real,
                            "cpu_time": cpu})
    return results


def host_of(build, scratch, way):
    if way == "vxrun":
        return os.path.join(build, "bin", "vxschedd")
    os.makedirs(os.path.join(scratch, "bin"), exist_ok=True)
    host = os.path.join(scratch, "bin", "vxschedd")
    if not os.path.exists(host):
        shutil.copy(os.path.join(build, "bin", "vxschedd"), host)
        os.symlink(os.path.join(build, "lib"), os.path.join(scratch, "lib"))
    return host


def change(build, store, moment):
    """The nanoseconds that a client's change takes that begins right after this moment, in seconds."""
    time.sleep(max(moment + 0.02 - time.time(), 0))
    begin = time.monotonic_ns()
    subprocess.run([os.path.join(build, "bin", "vxsched"), "--directory", store, "create", "other", "--at", "in 1h",
                    "--", os.path.join(build, "bench", "record_start"), "x"], check=True, stdout=subprocess.DEVNULL)
    return time.monotonic_ns() - begin


def lateness(build, scratch, way, size, interval):
    """The nanoseconds from its due second to the run of each of so many jobs, due so many seconds after each other, and
    those that a change takes in the first one's."""
    store = os.path.join(scratch, "%s-%d-%d" % (way, size, interval))
    os.makedirs(os.path.join(store, "files"), mode=0o700)
    due = int(time.time()) + 5
    record = os.path.join(store, "times")
    tasks = [{"name": "job %d" % number, "next": due + number * interval, "last": 0, "period": 24, "paused": False,
              "parameter": record, "program": os.path.join(build, "bench", "record_start")} for number in range(size)]
    subprocess.run([os.path.join(build, "bin", "vxsched"), "--directory", store, "import"], text=True, check=True,
                   input=json.dumps({"version": 1, "tasks": tasks}), stdout=subprocess.DEVNULL)
    addin = os.path.join(build, "lib", "libVantrixScheduler.so")
    host = subprocess.Popen([host_of(build, scratch, way), "--directory", store, "--addin", addin],
                            stderr=subprocess.DEVNULL, env=isolation.ENVIRONMENT)
    wait = change(build, store, due)
    times = []
    while len(times) < size and time.time() < due + size * interval + LONGEST:
        time.sleep(0.5)
        if os.path.exists(record):
            with open(record) as file:
                times = sorted(int(line) for line in file)
    host.terminate()
    host.wait()
    if len(times) != size:
        sys.exit("runner.py: %d jobs ran instead of %d" % (len(times), size))
    return [ran - (due + number * interval) * SECOND for number, ran in enumerate(times)], wait


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--quick"]
    if len(arguments) != 2:
        sys.exit(__doc__)
    build, result = map(os.path.abspath, arguments)
    is_quick = len(arguments) < len(sys.argv) - 1
    isolation.enter()
    scratch = tempfile.mkdtemp(prefix="bench-")
    try:
        results = launches(build, scratch, 3 if is_quick else 300)
        results.append({"run_name": "runner/memory", "run_type": "iteration", "real_time": private_memory(build)})
        for size in SIZES[:1] if is_quick else SIZES:
            for way in WAYS:
                late, wait = lateness(build, scratch, way, size, 0)
                for name, value in (("last", max(late)), ("wait", wait)):
                    results.append({"run_name": "runner/%s/%s/%d" % (name, way, size), "run_type": "iteration",
                                    "real_time": value})
        single, _ = lateness(build, scratch, "vxrun", 3 if is_quick else SINGLES, 1)
        for name, value in (("median", statistics.median(single)), ("worst", max(single))):
            results.append({"run_name": "runner/single/" + name, "run_type": "iteration", "real_time": value})
    finally:
        os.chdir("/")
        shutil.rmtree(scratch, ignore_errors=True)
    with open(result, "w") as file:
        json.dump({"context": {}, "benchmarks": results}, file, indent=0)


main()
