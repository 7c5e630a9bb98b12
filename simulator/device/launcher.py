"""Runs inside the sandbox, before the service and in its place: opens the platform's ports, then becomes the service.

The simulator passes this text to the sandbox's Python with -c, so it uses nothing but the standard library. It speaks
over the inherited socket whose descriptor is its only argument: reads {"argv": [...], "environment": {...},
"ports": [...], "full_port": n or 0, "restrictions": {...}} as JSON, sends back the listening sockets, waits until it
may go on, restricts itself, and closes the socket by becoming the service; if that fails it sends the reason instead.
"""

import base64
import ctypes
import json
import os
import resource
import socket
import sys

# Of the C headers; Python has no names for them.
PR_SET_SECCOMP = 22
SECCOMP_MODE_FILTER = 2
PR_CAPBSET_READ = 23
PR_CAPBSET_DROP = 24
PR_SET_NO_NEW_PRIVS = 38
MS_NOSUID_NODEV_NOEXEC = 2 | 4 | 8

c_library = ctypes.CDLL(None, use_errno=True)


class FilterProgram(ctypes.Structure):
    """struct sock_fprog; an instruction has 8 bytes."""

    _fields_ = [("length", ctypes.c_ushort), ("instructions", ctypes.c_char_p)]


def listen(port, backlog=64):
    """Listening sockets on the port, for IPv4 and, where there is one, IPv6."""
    sockets = []
    for family, address in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
        try:
            listener = socket.socket(family, socket.SOCK_STREAM)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((address, port))
        except OSError:
            if family == socket.AF_INET:
                raise
            continue
        listener.listen(backlog)
        sockets.append(listener)
    return sockets


def full(port):
    """A listening socket whose queue is full, so that further connects hang; the sockets that keep it so."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", port))
    listener.listen(0)
    return [listener, socket.create_connection(("127.0.0.1", port))]


def call(function, *arguments):
    """Calls a function of the C library that returns -1 when it fails."""
    if function(*arguments) == -1:
        number = ctypes.get_errno()
        raise OSError(number, f"{function.__name__}{arguments}: {os.strerror(number)}")


def drop_capabilities(kept):
    """Takes all others from the bounding set: becoming another program then leaves no more than the kept ones."""
    number = 0
    while c_library.prctl(PR_CAPBSET_READ, number, 0, 0, 0) >= 0:
        if number not in kept:
            call(c_library.prctl, PR_CAPBSET_DROP, number, 0, 0, 0)
        number += 1


def restrict(order):
    os.umask(order["umask"])
    resource.setrlimit(resource.RLIMIT_CORE, (order["core_limit"], order["core_limit"]))
    if order["private_proc"]:
        call(c_library.mount, b"proc", b"/proc", b"proc", MS_NOSUID_NODEV_NOEXEC, b"hidepid=invisible,subset=pid")
    if order["keep_capabilities"] is not None:
        drop_capabilities(order["keep_capabilities"])
    call(c_library.prctl, PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0)
    for text in order["filters"]:
        instructions = base64.b64decode(text)
        program = FilterProgram(len(instructions) // 8, instructions)
        call(c_library.prctl, PR_SET_SECCOMP, SECCOMP_MODE_FILTER, ctypes.byref(program), 0, 0)


def main():
    channel = socket.socket(fileno=int(sys.argv[1]))
    order = json.loads(channel.recv(1 << 20))
    try:
        sockets = [listener for port in order["ports"] for listener in listen(port)]
        sockets += full(order["full_port"]) if order["full_port"] else []
        socket.send_fds(channel, [b"ports"], [one.fileno() for one in sockets])
        channel.recv(1)
        channel.set_inheritable(False)
        restrict(order["restrictions"])
        os.execve(order["argv"][0], order["argv"], order["environment"])
    except OSError as error:
        channel.send(str(error).encode())
        sys.exit(127)


main()
