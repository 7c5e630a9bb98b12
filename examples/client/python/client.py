"""Sends the command in a file to the service, and prints the reply.

usage: client.py FILE [FOLDER]

FOLDER stands for /tmp, off the camera. Exit code: 0 a reply came; 1 none did, as standard error explains; 2 wrong
usage.
"""

import contextlib
import os
import socket
import struct
import sys
import time

WAIT_SECONDS = 10  # whiteListClear waits for the face library, as long as that takes
HEAD_SIZE = 280
TAG = os.getpid()


def request(body, folder):
    """Sends one command; returns the text of its reply."""
    own, service = f"{folder}/KH", f"{folder}/HK"
    with contextlib.suppress(FileNotFoundError):
        os.unlink(own)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
        try:
            client.bind(own)
        except OSError as error:
            sys.exit(f"client: {own}: {error.strerror}; run as root or as a user who may write to {folder}")
        try:
            os.chmod(own, 0o666)  # the service answers as another user
            return exchange(client, service, body)
        finally:
            os.unlink(own)


def exchange(client, service, body):
    """Sends head and body, and waits for the two datagrams of the reply."""
    head = struct.pack("<8s8s224xI12xI20x", b"/tmp/HK", b"/tmp/KH", TAG, len(body))
    deadline = time.monotonic() + WAIT_SECONDS
    try:
        client.connect(service)
    except OSError as error:
        sys.exit(f"client: {service}: {error.strerror}; is the service running, and ITGT ready? Try again later")
    try:
        client.settimeout(WAIT_SECONDS)
        client.send(head)
        client.send(body)
        tag = None
        while True:
            reply = receive(client, deadline)
            if len(reply) == HEAD_SIZE and reply.startswith(b"/tmp/KH\0"):
                (tag,) = struct.unpack_from("<I", reply, 240)
            elif tag == TAG:  # an earlier command's late reply may come first
                return reply.decode()
    except TimeoutError:
        sys.exit(f"client: no reply within {WAIT_SECONDS} s; read the service's log before you send the command again")
    except OSError as error:
        sys.exit(f"client: {service}: {error.strerror}; the command did not arrive whole, send it again later")


def receive(client, deadline):
    client.settimeout(max(0.001, deadline - time.monotonic()))
    return client.recv(65536)


if len(sys.argv) not in (2, 3):
    print(__doc__, file=sys.stderr)
    sys.exit(2)
try:
    with open(sys.argv[1], "rb") as file:
        command = file.read()
except OSError as error:
    sys.exit(f"client: {sys.argv[1]}: {error.strerror}; name a file with a command, {{\"taskName\": ...}}")
print(request(command, sys.argv[2] if len(sys.argv) > 2 else "/tmp"))
