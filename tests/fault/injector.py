"""Runs a program with one of its system calls failing, or being its last.

strace does both: the call with a given number among the calls of its name is answered with an error instead of being
carried out, or the program is killed on entering it. The program itself is the one that is shipped.
"""

import ctypes
import os
import platform
import re
import signal
import struct
import subprocess
import time
from pathlib import Path
from typing import NamedTuple

from world import PATIENCE

# The calls that touch the disk or the network, and the errors that each of them may meet there.
ERRORS = {
    "access": ["EIO"],
    "close": ["EIO", "ENOSPC", "EINTR"],
    "connect": ["ECONNREFUSED", "ENETUNREACH", "EINTR"],
    "copy_file_range": ["EIO", "ENOSPC", "EINTR"],
    "fchmod": ["EIO", "EROFS"],
    "fchown": ["EIO", "EROFS"],
    "fcntl": ["EMFILE"],
    "flock": ["EIO", "ENOLCK", "EINTR"],
    "fsync": ["EIO", "ENOSPC", "EROFS", "EINTR"],
    "ftruncate": ["EIO", "EROFS", "EINTR"],
    "ioctl": ["EIO", "ENOSPC", "EINTR"],
    "linkat": ["EIO", "ENOSPC", "EROFS", "EPERM"],
    "lseek": ["EIO"],
    "newfstatat": ["EIO"],
    "openat": ["EIO", "ENOSPC", "EROFS", "EMFILE", "EINTR"],
    "poll": ["EINTR"],
    "pwrite64": ["EIO", "ENOSPC", "EINTR"],
    "read": ["EIO", "EINTR"],
    "readlink": ["EIO"],
    "recvfrom": ["ECONNRESET", "EIO", "EINTR"],
    "renameat": ["EIO", "ENOSPC", "EROFS"],
    "sendto": ["ECONNRESET", "EPIPE", "EIO", "EINTR"],
    "socket": ["EMFILE"],
    "statfs": ["EIO"],
    "unlink": ["EIO", "EROFS"],
    "unlinkat": ["EIO", "EROFS"],
    "write": ["EIO", "ENOSPC", "EINTR"],
}

# What the thread reads that looks up the master's name; it is the only other thread of the programs.
RESOLVER_FILES = ["/etc/nsswitch.conf", "/etc/host.conf", "/etc/resolv.conf", "/etc/gai.conf", "/etc/hosts"]

CALL = re.compile(r"([a-z_0-9]+)\((.*)")


class Call(NamedTuple):
    """One system call of an undisturbed run: its name, its number among the calls of that name, counted from the
    program's start, and its arguments and result as strace shows them."""

    name: str
    number: int
    text: str


class Fault(NamedTuple):
    """What happens to the call `name` with this `number`: it fails with `error`, or the program gets `signal` on
    entering it where `error` is None. With `files`, only the calls on these files are counted, in whichever thread."""

    name: str
    number: int
    error: str = None
    files: tuple = ()
    signal: str = "KILL"

    @property
    def is_kill(self):
        return self.error is None and self.signal == "KILL"

    def __str__(self):
        where = " of the name look-up" if self.files else ""
        return f"{self.error or self.signal} at {self.name} #{self.number}{where}"


class Run(NamedTuple):
    """How a run ended; a negative status is the signal that killed it. `reached` tells whether the fault took place,
    and `call` is the call that it hit (empty for a kill)."""

    stdout: str
    stderr: str
    status: int
    reached: bool
    call: str


def injection(fault, report):
    command = ["strace", "-qq", "-y", "-o", report, "-e", f"trace={fault.name}"]
    if fault.files:
        command += ["-f", *(option for file in fault.files for option in ("-P", file))]
    action = f"error={fault.error}" if fault.error else f"signal={fault.signal}"
    return [*command, "-e", f"inject={fault.name}:{action}:when={fault.number}"]


def begin(command, refuse_nameless=False):
    plain = {name: value for name, value in os.environ.items() if not name.startswith(("LC_", "LANG"))}
    return subprocess.Popen(
        command, env=plain, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        start_new_session=True, preexec_fn=refuse_nameless_files if refuse_nameless else None)


def finish(process, stdin=""):
    with process:
        try:
            stdout, stderr = process.communicate(stdin, PATIENCE)
        except BaseException:
            # Ending strace alone would leave the program running.
            os.killpg(process.pid, signal.SIGKILL)
            raise
    return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)


def execute(command, stdin, refuse_nameless):
    return finish(begin(command, refuse_nameless), stdin)


def run(command, report, fault=None, stdin="", refuse_nameless=False):
    """Runs a program to its end, under `fault` where one is given; strace writes to the file `report`. It returns only
    when no process, not even a child, has the program's output open any more."""
    if fault is None:
        ended = execute(command, stdin, refuse_nameless)
        return Run(ended.stdout, ended.stderr, ended.returncode, False, "")
    ended = execute([*injection(fault, report), *command], stdin, refuse_nameless)
    hit = [line for line in report.read_text(errors="replace").splitlines() if "(INJECTED)" in line]
    killed = fault.is_kill and ended.returncode == -signal.SIGKILL
    signaled = f"--- SIG{fault.signal} " in report.read_text(errors="replace")
    return Run(ended.stdout, ended.stderr, ended.returncode, killed or signaled or bool(hit), hit[0] if hit else "")


def run_with_a_stop(command, report, call, action):
    """Runs a program, stops it when it has made `call`, does `action`, and lets it go on to its end."""
    process = begin(["strace", "-qq", "-o", report, "-e", f"trace={call.name}",
                     "-e", f"inject={call.name}:signal=STOP:when={call.number}", *command])
    try:
        deadline = time.monotonic() + PATIENCE
        while not (report.exists() and "stopped by SIGSTOP" in report.read_text(errors="replace")):
            assert process.poll() is None and time.monotonic() < deadline, f"the run did not come to {call}"
            time.sleep(0.001)
        action()
        os.kill(int(Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text()), signal.SIGCONT)
    except BaseException:
        os.killpg(process.pid, signal.SIGKILL)
        raise
    ended = finish(process)
    return Run(ended.stdout, ended.stderr, ended.returncode, True, "")


def trace(command, report, stdin="", refuse_nameless=False):
    """The calls of the first thread of an undisturbed run, from the first one that is the program's own work on: the
    last thing that the loader does is to unmap the list of libraries."""
    ended = execute(["strace", "-qq", "-y", "-s", "64", "-o", report, *command], stdin, refuse_nameless)
    assert ended.returncode == 0, ended
    calls, seen, loaded = [], {}, False
    for line in report.read_text(errors="replace").splitlines():
        match = CALL.match(line)
        if not match:
            continue
        name = match[1]
        seen[name] = seen.get(name, 0) + 1
        if loaded:
            calls.append(Call(name, seen[name], match[2]))
        loaded = loaded or name == "munmap"
    return calls


def first_numbers(calls):
    """For each call of ERRORS that the program makes: the number of its first one."""
    first = {}
    for call in calls:
        if call.name in ERRORS:
            first.setdefault(call.name, call.number)
    return first


# A file system without nameless files, made of one that has them

PR_SET_SECCOMP, PR_SET_NO_NEW_PRIVS, SECCOMP_MODE_FILTER = 22, 38, 2
SECCOMP_RET_ALLOW, SECCOMP_RET_ERRNO = 0x7FFF0000, 0x00050000
LOAD_WORD, JUMP_IF_EQUAL, JUMP_IF_BITS, RETURN = 0x20, 0x15, 0x45, 0x06
CALL_NUMBER, THIRD_ARGUMENT = 0, 32
OPENAT = {"x86_64": 257, "aarch64": 56}
O_TMPFILE_BIT = 0o20000000
EOPNOTSUPP = 95


def refuse_nameless_files():
    """Lets the kernel answer EOPNOTSUPP, in this process and its children, where a nameless file is asked for."""
    steps = [
        (LOAD_WORD, 0, 0, CALL_NUMBER),
        (JUMP_IF_EQUAL, 0, 3, OPENAT[platform.machine()]),
        (LOAD_WORD, 0, 0, THIRD_ARGUMENT),
        (JUMP_IF_BITS, 0, 1, O_TMPFILE_BIT),
        (RETURN, 0, 0, SECCOMP_RET_ERRNO | EOPNOTSUPP),
        (RETURN, 0, 0, SECCOMP_RET_ALLOW),
    ]
    code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *step) for step in steps))
    program = ctypes.create_string_buffer(struct.pack("@HP", len(steps), ctypes.addressof(code)))
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 or \
            libc.prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, program) != 0:
        raise OSError(ctypes.get_errno(), "no filter for system calls")
