"""Which calls and allocations fail, and how: each call in the ways in which the kernel can fail it on a camera."""

from __future__ import annotations

from dataclasses import dataclass
from errno import (EACCES, EADDRINUSE, EAGAIN, ECONNREFUSED, ECONNRESET, EINTR, EIO, EMFILE, ENETUNREACH, ENOBUFS,
                   ENOMEM, ENOSPC, EPIPE, EROFS, ETIMEDOUT, errorcode)

import seccomp

# Numbers of control.c.
KILLS = -1
ALLOCATION = "allocation"
_OWN_NUMBERS = {ALLOCATION: 510, "write to the log": 511}
_OWN_NAMES = {number: name for name, number in _OWN_NUMBERS.items()}
ROLES = ("main thread", "command loop", "other thread")

_FILE = (EACCES, EIO, ENOMEM)
_MAKES_FILE = (EACCES, EIO, ENOSPC, EROFS)
_DESCRIPTOR = (EMFILE, ENOMEM)
ERRORS: dict[str, tuple[int, ...]] = {
    **dict.fromkeys(("access", "stat", "newfstatat", "fstat", "lstat", "statx", "getcwd", "readlink", "readlinkat",
                     "getdents64", "faccessat2", "faccessat"), _FILE),
    **dict.fromkeys(("open", "openat"), (*_FILE, EINTR, EMFILE, ENOSPC)),
    **dict.fromkeys(("mkdir", "unlink", "chmod", "fchmod", "fchown", "rename"), _MAKES_FILE),
    **dict.fromkeys(("fsync", "fallocate", "ftruncate"), (EINTR, EIO, ENOSPC)),
    "read": (EAGAIN, ECONNRESET, EINTR, EIO, ENOMEM, ETIMEDOUT),
    **dict.fromkeys(("write", "writev"), (EAGAIN, ECONNRESET, EINTR, EIO, ENOSPC, EPIPE)),
    "write to the log": (EAGAIN, EINTR, EIO, ENOSPC, EPIPE),
    "close": (EINTR, EIO, ENOSPC),
    "socket": (EACCES, *_DESCRIPTOR, ENOBUFS),
    "connect": (EACCES, EAGAIN, ECONNREFUSED, EINTR, ENETUNREACH, ENOMEM, ETIMEDOUT),
    "bind": (EACCES, EADDRINUSE, ENOMEM, ENOSPC),
    **dict.fromkeys(("sendto", "sendmsg", "sendmmsg"), (EACCES, EAGAIN, ECONNREFUSED, ECONNRESET, EINTR, ENOBUFS,
                                                        ENOMEM, EPIPE)),
    **dict.fromkeys(("recvfrom", "recvmsg"), (EAGAIN, ECONNREFUSED, ECONNRESET, EINTR, EIO, ENOMEM, ETIMEDOUT)),
    **dict.fromkeys(("setsockopt", "getsockopt", "getsockname", "getpeername"), (ENOBUFS, ENOMEM)),
    **dict.fromkeys(("poll", "ppoll", "select", "pselect6", "epoll_wait", "epoll_pwait"), (EINTR, ENOMEM)),
    **dict.fromkeys(("eventfd2", "epoll_create1", "pipe2", "dup", "dup3"), _DESCRIPTOR),
    **dict.fromkeys(("fcntl", "ioctl"), (EAGAIN, EINTR, EIO, EMFILE)),
    **dict.fromkeys(("mmap", "mprotect", "munmap", "madvise", "mremap", "brk"), (ENOMEM,)),
    **dict.fromkeys(("futex", "clock_nanosleep", "nanosleep", "rt_sigtimedwait", "getrandom"), (EINTR,)),
    "clone": (EAGAIN, ENOMEM),
}
# What the kernel does not fail here, or only together with what else would not happen.
NEVER_FAIL = frozenset({
    # They have no way to fail with the arguments that the C library gives them.
    "getpid", "gettid", "getuid", "geteuid", "getgid", "getegid", "getgroups", "getresuid", "getresgid", "lseek",
    "prctl", "rseq", "set_robust_list", "rt_sigpending", "sched_yield", "sched_getaffinity", "sysinfo", "uname",
    "tgkill", "getrusage", "times", "clock_gettime", "sched_get_priority_min", "sched_get_priority_max",
    "rt_sigaction", "umask",
    # The kernel lets each thread or none; were it otherwise the C library would end the process.
    "setgroups", "setresuid", "setresgid",
})


@dataclass(frozen=True, order=True)
class Failure:
    """The number-th call of this kind by such a thread fails so; `error` is an errno value or KILLS.

    lasts  whether all calls of this kind fail from there on, of every thread
    """

    role: int
    call: str
    number: int
    error: int
    lasts: bool = False

    def __str__(self) -> str:
        how = "kills" if self.error == KILLS else f"fails with {errorcode[self.error]}"
        how += ", and all behind it" if self.lasts else ""
        return f"{self.call} number {self.number} of the {ROLES[self.role]} {how}"


def call_number(name: str) -> int:
    return _OWN_NUMBERS.get(name) or int(seccomp.resolve_syscall(seccomp.Arch(), name))


def call_name(number: int) -> str:
    return _OWN_NAMES.get(number) or seccomp.resolve_syscall(seccomp.Arch(), number).decode()


def failures(counts: dict[tuple[int, str], int]) -> list[Failure]:
    """Each call fails once in each of its ways; a call that is in no table above is an error."""
    return sorted(Failure(role, call, number + 1, error) for (role, call), count in counts.items()
                  if call not in NEVER_FAIL and call != ALLOCATION
                  for number in range(count) for error in ERRORS[call])


def kills(counts: dict[tuple[int, str], int]) -> list[Failure]:
    """The process is killed in the place of each call."""
    return sorted(Failure(role, call, number + 1, KILLS) for (role, call), count in counts.items()
                  if call != ALLOCATION for number in range(count))


def allocations(counts: dict[tuple[int, str], int], lasts: bool) -> list[Failure]:
    """Each allocation fails: it alone, or with all that come behind it."""
    return [Failure(role, ALLOCATION, number + 1, ENOMEM, lasts) for role in range(len(ROLES))
            for number in range(counts.get((role, ALLOCATION), 0))]
