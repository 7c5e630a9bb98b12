"""Makes one end of a line, in a network of its own, and passes it on: run as a program of its own.

usage: device.py DESCRIPTOR NAME ADDRESS PEER PORT [PID]

Makes the network device NAME with an ADDRESS and its PEER's, in the network of the process PID or, without one, in the
present one. Sends its descriptor over the socket DESCRIPTOR and, with a PORT that is not 0, one that listens there.
Then stays until the socket is closed: the network lasts as long.
"""

from __future__ import annotations

import ctypes
import fcntl
import os
import socket
import struct
import sys

MTU = 1500
# More than any program has under way: a queue that is full would drop.
QUEUE = 20_000

# Of the C headers; Python has no names for them.
TUNSETIFF = 0x400454CA
IFF_TUN_WITHOUT_HEADER = 0x1001
NS_GET_USERNS = 0xB701
SIOCSIFFLAGS = 0x8914
SIOCSIFADDR = 0x8916
SIOCSIFDSTADDR = 0x8918
SIOCSIFMTU = 0x8922
SIOCSIFTXQLEN = 0x8943
IFF_UP = 1


def enter_network(pid: int) -> None:
    """Joins the network of a process and, unless it is root's, the account mapping that it belongs to."""
    c_library = ctypes.CDLL(None, use_errno=True)
    network = os.open(f"/proc/{pid}/ns/net", os.O_RDONLY)
    joined = [network] if os.geteuid() == 0 else [fcntl.ioctl(network, NS_GET_USERNS), network]
    for namespace in joined:
        if c_library.setns(namespace, 0) != 0:
            number = ctypes.get_errno()
            raise OSError(number, f"setns: {os.strerror(number)}")


def make(name: str, address: str, peer: str) -> int:
    """Makes the device; it lasts as long as the descriptor that is returned."""
    descriptor = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(descriptor, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TUN_WITHOUT_HEADER))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        for request, value in ((SIOCSIFADDR, _address(address)), (SIOCSIFDSTADDR, _address(peer)),
                               (SIOCSIFMTU, struct.pack("i", MTU)), (SIOCSIFTXQLEN, struct.pack("i", QUEUE)),
                               (SIOCSIFFLAGS, struct.pack("h", IFF_UP))):
            fcntl.ioctl(any_socket, request, struct.pack("16s24s", name.encode(), value))
    return descriptor


def _address(text: str) -> bytes:
    """struct sockaddr_in"""
    return struct.pack("=HH4s8x", socket.AF_INET, 0, socket.inet_aton(text))


def main() -> None:
    channel = socket.socket(fileno=int(sys.argv[1]))
    name, address, peer, port = sys.argv[2:6]
    if sys.argv[6:]:
        enter_network(int(sys.argv[6]))
    descriptors = [make(name, address, peer)]
    if port != "0":
        listener = socket.create_server((address, int(port)), backlog=64)
        descriptors.append(listener.detach())
    socket.send_fds(channel, [b"made"], descriptors)
    channel.recv(1)


if __name__ == "__main__":
    main()
