#!/usr/bin/env python3
"""Runs a command and prints one line about it: wall seconds, CPU seconds
(user + system), peak resident KiB and the bytes it caused to be written
(/proc/PID/io write_bytes, read before the process is reaped).

    bench/measure.py CMD [ARG...]     exit status: the command's
"""
import os
import sys
import time

start = time.monotonic()
pid = os.fork()
if pid == 0:
    fd = os.open(os.devnull, os.O_WRONLY)
    os.dup2(fd, 1)
    os.dup2(fd, 2)
    os.execvp(sys.argv[1], sys.argv[1:])
os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)
wall = time.monotonic() - start
written = 0
with open("/proc/%d/io" % pid) as io:
    for line in io:
        key, value = line.split(":")
        if key == "write_bytes":
            written = int(value)
        elif key == "cancelled_write_bytes":
            written -= int(value)
_, status, usage = os.wait4(pid, 0)
print("%.3f %.3f %d %d" % (wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, written))
sys.exit(os.waitstatus_to_exitcode(status))
