"""Isolates the measured schedulers from those of the machine: private namespaces, and directories in memory mounted
over those in which cron and at keep their entries."""
import os
import shutil
import subprocess
import sys

SPOOL = "/var/spool/cron"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LANG": "C.UTF-8", "LOGNAME": "root",
               "SHELL": "/bin/sh"}
INSIDE = "BENCH_INSIDE"


def can_compare():
    """Whether cron and at can be measured: they are installed, and this process may hide the machine's entries."""
    return os.geteuid() == 0 and all(map(shutil.which, ("cron", "crontab", "at", "atq")))


def enter(*namespaces):
    """Executes this program again in private namespaces, always of mounts and IPC, and continues there. Without root
    nothing is mounted, and a user namespace is created as well."""
    if INSIDE in os.environ:
        return
    os.environ[INSIDE] = "1"
    options = ["--mount", "--propagation", "private"] if os.geteuid() == 0 else ["--user", "--map-current-user"]
    command = ["unshare", *options, "--ipc", *namespaces, sys.executable, *sys.argv]
    os.execvp(command[0], command)


def mount_over(directory, mode="755"):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=" + mode, "none", directory], check=True)


def hide_entries(scratch):
    """Mounts empty directories, with the owners and modes of the machine's, over those that cron and at use."""
    empty = os.path.join(scratch, "spool")
    os.mkdir(empty)
    for name in sorted(os.listdir(SPOOL)):
        status = os.stat(os.path.join(SPOOL, name))
        made = os.path.join(empty, name)
        os.mkdir(made)
        os.chown(made, status.st_uid, status.st_gid)
        os.chmod(made, status.st_mode & 0o7777)
    mount_over(SPOOL)
    subprocess.run(["cp", "-a", empty + "/.", SPOOL], check=True)
    sequence = os.path.join(SPOOL, "atjobs", ".SEQ")
    open(sequence, "w").close()
    owner = os.stat(os.path.dirname(sequence))
    os.chown(sequence, owner.st_uid, owner.st_gid)
    os.chmod(sequence, 0o600)
    # Process ids, sockets of logs and services.
    mount_over("/run")
    mount_over("/etc/cron.d")
    nothing = os.path.join(scratch, "nothing")
    open(nothing, "w").close()
    if os.path.exists("/etc/crontab"):
        subprocess.run(["mount", "--bind", nothing, "/etc/crontab"], check=True)


def write_store(programs, directory, count):
    """Creates a working directory with that many tasks."""
    os.makedirs(os.path.join(directory, "files"))
    with open(os.path.join(directory, "files", "scheduler.dat"), "wb") as file:
        subprocess.run([os.path.join(programs, "write_entries"), "table", str(count)], stdout=file, check=True)


def write_crontab(programs, path, count):
    with open(path, "wb") as file:
        subprocess.run([os.path.join(programs, "write_entries"), "crontab", str(count)], stdout=file, check=True)
