#!/usr/bin/python3 -B
"""Runs a command while the first LAN binding is half written, under its lock: the flag is new, the
name follows 0.3 s later.

usage: tests/scctl/half_written.py COMMAND [ARGUMENT]...
"""

import ctypes
import fcntl
import subprocess
import sys
import time

KEY, SIZE = 9600, 50888
RECORD, FLAG, NAME, LOCK = 1508, 8, 48, 2

libc = ctypes.CDLL(None)
libc.shmat.restype = ctypes.c_void_p
block = libc.shmat(libc.shmget(KEY, SIZE, 0), None, 0)
with open("/var/lock_store/lan_conf_lock", "r+b") as file:
    fcntl.lockf(file, fcntl.LOCK_EX, 1, LOCK)
    ctypes.memset(block + RECORD + FLAG, 9, 1)
    reader = subprocess.Popen(sys.argv[1:])
    time.sleep(0.3)
    ctypes.memset(block + RECORD + NAME, ord("9"), 1)
sys.exit(reader.wait())
