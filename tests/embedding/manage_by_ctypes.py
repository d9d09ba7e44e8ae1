#!/usr/bin/env python3
"""Manages tasks through the C interface by ctypes, in the working directory: manage_by_ctypes.py LIBRARY"""
import ctypes
import sys
import time

DONE, NOT_FOUND = 0, 3
Strings = ctypes.POINTER(ctypes.c_char_p)


class Task(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("next", ctypes.c_int64), ("last", ctypes.c_int64),
                ("period", ctypes.c_uint32), ("program", ctypes.c_char_p), ("parameter", ctypes.c_char_p),
                ("paused", ctypes.c_bool)]


class Record(ctypes.Structure):
    _fields_ = [("run", ctypes.c_char_p), ("task", ctypes.c_char_p), ("outcome", ctypes.c_char_p),
                ("failed", ctypes.c_bool), ("number", ctypes.c_int), ("error", ctypes.c_char_p),
                ("program", ctypes.c_char_p), ("parameter", ctypes.c_char_p), ("trigger", ctypes.c_char_p),
                ("attempt", ctypes.c_int), ("process", ctypes.c_int), ("due", ctypes.c_int64),
                ("started", ctypes.c_int64), ("ended", ctypes.c_int64)]


library = ctypes.CDLL(sys.argv[1])
library.vxsched_open.restype = ctypes.c_void_p
library.vxsched_message.restype = ctypes.c_char_p
each_task = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(Task), ctypes.c_void_p)
each_record = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(Record), ctypes.c_void_p)
each_part = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(ctypes.c_char), ctypes.c_size_t, ctypes.c_void_p)
store = ctypes.c_void_p(library.vxsched_open(b"."))


def call(function, *arguments, expected=DONE):
    error = getattr(library, "vxsched_" + function)(store, *arguments)
    if error != expected:
        sys.exit("%s: returned %d: %s" % (function, error, library.vxsched_message(store).decode()))


def words(*strings):
    return (ctypes.c_char_p * (len(strings) + 1))(*strings, None)


def names():
    found = []

    def take(task, _):
        found.append((task.contents.name, task.contents.period, task.contents.paused))
        return True

    call("list", each_task(take), None)
    return found


call("create_job", b"job", ctypes.c_int64(0), 0, words(b"--daily-is-no-option"), False, expected=1)
call("create_job", b"job", ctypes.c_int64(0), 0,
     words(b"--cron", b"30 2 * * *", b"--timeout=1h", b"--", b"/bin/echo", b"one", b"two"), False)
call("begin")
task = Task(b"other", int(time.time()) + 3600, 0, 24, b"/bin/ls", b"x", False)
call("create", ctypes.byref(task), False)
call("pause", b"job")
call("commit")
assert names() == [(b"job", 1, True), (b"other", 24, False)], names()

status = ctypes.c_int(-1)
call("run_and_wait", b"job", False, None, ctypes.byref(status))
assert status.value == 0, status
records = []
call("history", b"job", each_record(lambda record, _: records.append(
    (record.contents.outcome, record.contents.number, record.contents.trigger)) or True), None)
assert records == [(b"exited", 0, b"manual")], records
output = []
call("output", b"job", 1, each_part(lambda part, size, _: output.append(part[:size]) or True), None)
assert b"".join(output) == b"one two\n", output
call("remove", b"gone", expected=NOT_FOUND)
call("begin")
call("remove", b"job")
call("remove", b"other")
call("commit")
assert names() == []
library.vxsched_close(store)
