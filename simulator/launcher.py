"""Runs inside the sandbox, before the service and in its place: opens the platform's ports, then becomes the service.

The simulator passes this text to the sandbox's Python with -c, so it uses nothing but the standard library. It speaks
over the inherited socket whose descriptor is its only argument: reads {"argv": [...], "environment": {...},
"ports": [...], "full_port": n} as JSON, sends back the listening sockets, and closes the socket by becoming the
service; if that fails it sends the reason instead.
"""

import json
import os
import socket
import sys


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


def main():
    channel = socket.socket(fileno=int(sys.argv[1]))
    order = json.loads(channel.recv(1 << 20))
    try:
        sockets = [listener for port in order["ports"] for listener in listen(port)] + full(order["full_port"])
        socket.send_fds(channel, [b"ports"], [one.fileno() for one in sockets])
        channel.set_inheritable(False)
        os.execve(order["argv"][0], order["argv"], order["environment"])
    except OSError as error:
        channel.send(str(error).encode())
        sys.exit(127)


main()
