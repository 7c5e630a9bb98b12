"""A disk with a cache of its own, which loses what was not flushed when the power goes: for qemu, over NBD."""

from __future__ import annotations

import contextlib
import random
import socket
import struct
import threading
from pathlib import Path

# https://github.com/NetworkBlockDevice/nbd/blob/master/doc/proto.md
_MAGIC, _OPTION_MAGIC, _REPLY_MAGIC = b"NBDMAGIC", b"IHAVEOPT", 0x3E889045565A9
_REQUEST_MAGIC, _SIMPLE_REPLY_MAGIC = 0x25609513, 0x67446698
_FIXED_NEWSTYLE_NO_ZEROES = 3
_GO, _ACKNOWLEDGED, _INFORMATION, _UNSUPPORTED = 7, 1, 3, 0x80000001
_HAS_FLAGS_FLUSH_FUA = 1 | 4 | 8
_READ, _WRITE, _DISCONNECT, _FLUSH = range(4)
_SECTOR = 512


class VolatileDisk:
    """Serves a copy of an image on a unix socket.

    hangs  is set once it has taken as many writes as hang_after() said; it does nothing more then
    """

    def __init__(self, image: bytes, path: Path) -> None:
        self._content = bytearray(image)
        self._stable = bytearray(image)
        self._waiting: list[tuple[int, bytes]] = []
        self._lock = threading.Lock()
        self._writes_left = 0
        self.hangs = threading.Event()
        self._closing = threading.Event()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(path))
        self._listener.listen()
        self._thread = threading.Thread(target=self._serve, name="volatile disk", daemon=True)
        self._thread.start()

    def hang_after(self, writes: int) -> None:
        """Holds the moment at which so many more writes have come, of which the last ones are not flushed."""
        self._writes_left = writes

    def cut(self, source: random.Random) -> bytes:
        """What is on the disk when the power goes now: of what waits, any sectors, as a cache writes them."""
        with self._lock:
            for offset, data in self._waiting:
                for begin in range(0, len(data), _SECTOR):
                    if source.random() < 0.5:
                        self._stable[offset + begin:offset + begin + _SECTOR] = data[begin:begin + _SECTOR]
            self._waiting.clear()
            return bytes(self._stable)

    def content(self) -> bytes:
        """What is on the disk once its cache is written."""
        with self._lock:
            return bytes(self._content)

    @property
    def waiting(self) -> int:
        """How many sectors are in the cache alone."""
        with self._lock:
            return sum(len(data) for _, data in self._waiting) // _SECTOR

    def close(self) -> None:
        self._closing.set()
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()

    def _serve(self) -> None:
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._listener.accept()
                with connection, contextlib.suppress(OSError, EOFError):
                    self._agree(connection)
                    while self._request(connection):
                        pass

    def _agree(self, connection: socket.socket) -> None:
        connection.sendall(_MAGIC + _OPTION_MAGIC + struct.pack(">H", _FIXED_NEWSTYLE_NO_ZEROES))
        _receive(connection, 4)
        while True:
            _, option, length = struct.unpack(">8sII", _receive(connection, 16))
            _receive(connection, length)
            if option == _GO:
                export = struct.pack(">HQH", 0, len(self._content), _HAS_FLAGS_FLUSH_FUA)
                connection.sendall(_answer(option, _INFORMATION, export) + _answer(option, _ACKNOWLEDGED))
                return
            connection.sendall(_answer(option, _UNSUPPORTED))

    def _request(self, connection: socket.socket) -> bool:
        magic, flags, kind, cookie, offset, length = struct.unpack(">IHHQQI", _receive(connection, 28))
        assert magic == _REQUEST_MAGIC
        answer = b""
        if kind == _DISCONNECT:
            return False
        if kind == _READ:
            answer = bytes(self._content[offset:offset + length])
        if kind == _WRITE:
            self._write(offset, _receive(connection, length))
        if kind == _FLUSH or flags & 1:
            self._flush()
        connection.sendall(struct.pack(">IIQ", _SIMPLE_REPLY_MAGIC, 0, cookie) + answer)
        return True

    def _write(self, offset: int, data: bytes) -> None:
        with self._lock:
            self._content[offset:offset + len(data)] = data
            self._waiting.append((offset, data))
            self._writes_left -= 1
        if self._writes_left == 0:
            self.hangs.set()
            self._closing.wait()

    def _flush(self) -> None:
        with self._lock:
            for offset, data in self._waiting:
                self._stable[offset:offset + len(data)] = data
            self._waiting.clear()


def _answer(option: int, kind: int, data: bytes = b"") -> bytes:
    return struct.pack(">QIII", _REPLY_MAGIC, option, kind, len(data)) + data


def _receive(connection: socket.socket, length: int) -> bytes:
    data = bytearray()
    while len(data) < length:
        if not (more := connection.recv(length - len(data))):
            raise EOFError
        data += more
    return bytes(data)
