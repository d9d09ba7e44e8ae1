"""A place where schedulers can be measured without touching the machine's own: namespaces of this process's own, and
folders in memory over those that cron and at keep their entries in."""
import os
import shutil
import subprocess
import sys

SPOOL = "/var/spool/cron"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LANG": "C.UTF-8", "LOGNAME": "root",
               "SHELL": "/bin/sh"}
INSIDE = "BENCH_INSIDE"


def can_compare():
    """Whether cron and at can be measured: they are there, and this process may hide the machine's entries."""
    return os.geteuid() == 0 and all(map(shutil.which, ("cron", "crontab", "at", "atq")))


def enter(*namespaces):
    """Starts this program again in namespaces of its own, where those of mounts and IPC are always among them, and goes
    on there. Without root nothing is mounted, and the namespaces come with one of users."""
    if INSIDE in os.environ:
        return
    os.environ[INSIDE] = "1"
    how = ["--mount", "--propagation", "private"] if os.geteuid() == 0 else ["--user", "--map-current-user"]
    command = ["unshare", *how, "--ipc", *namespaces, sys.executable, *sys.argv]
    os.execvp(command[0], command)


def mount_over(folder, mode="755"):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=" + mode, "none", folder], check=True)


def hide_entries(scratch):
    """Puts empty folders, with the owners and modes of the machine's, over what cron and at read and write."""
    bare = os.path.join(scratch, "spool")
    os.mkdir(bare)
    for name in sorted(os.listdir(SPOOL)):
        status = os.stat(os.path.join(SPOOL, name))
        made = os.path.join(bare, name)
        os.mkdir(made)
        os.chown(made, status.st_uid, status.st_gid)
        os.chmod(made, status.st_mode & 0o7777)
    mount_over(SPOOL)
    subprocess.run(["cp", "-a", bare + "/.", SPOOL], check=True)
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


def write_store(programs, folder, count):
    """A working directory with so many tasks."""
    os.makedirs(os.path.join(folder, "files"))
    with open(os.path.join(folder, "files", "scheduler.dat"), "wb") as file:
        subprocess.run([os.path.join(programs, "write_entries"), "table", str(count)], stdout=file, check=True)


def write_crontab(programs, path, count):
    with open(path, "wb") as file:
        subprocess.run([os.path.join(programs, "write_entries"), "crontab", str(count)], stdout=file, check=True)
