"""The service under test: the unchanged binary inside the sandbox, its log and its end."""

from __future__ import annotations

import contextlib
import functools
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path

from simulator.device import emulator, restrictions
from simulator.device.sandbox import COUNTS, Sandbox
from simulator.errors import CameraError
from simulator.journal import Journal
from simulator.messages.log import LogRecord, parse_record
from simulator.owned_thread import OwnedThread

_START_SECONDS = 60.0
# SCM_CREDENTIALS: pid, uid, gid as the kernel sees the sender, in the reader's numbering.
_CREDENTIALS = struct.Struct("iII")
# What helps most often when the sandbox cannot be made.
_NAMESPACES = """\
An ordinary user needs user namespaces for it. As root: sysctl kernel.unprivileged_userns_clone=1, and where there
is such a setting kernel.apparmor_restrict_unprivileged_userns=0. A container has to be given these rights."""
# Type and owner of the note: https://systemd.io/ELF_PACKAGE_METADATA
_NOTE = struct.pack("<I4s", 0xCAFE1A7E, b"FDO")
_PASSED_ON = ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "TZ")


class Service:
    """Starts, signals and ends the service.

    pid        process id on this machine while it runs, for signals and /proc
    exit_code  None while it runs; 128 + N when signal N ended it
    version    of the binary, as it says itself; "" if it does not
    log        every record that it has written to its standard error, also those just before its last message
    stderr     standard error as it came
    stdout     standard output as it came; the service is to print nothing
    arguments, visible  of the binary: its arguments, and what else it must see
    ports      opened inside the sandbox before the service starts; full_port, if not 0, takes no connection

    Journal: "starting" a moment before the binary is executed, "started" with `pid`, "log" with `record`, "ended" with
    `exit_code`.
    `start` must be called on a thread that lives as long as the service: the sandbox dies with it.
    """

    name = "service"

    def __init__(self, journal: Journal, sandbox: Sandbox, binary: Path, *, preload: Sequence[Path] = (),
                 libraries: Sequence[Path] = (), environment: Mapping[str, str] | None = None,
                 ports: Sequence[int] = (), full_port: int = 0, filtered: bool = True,
                 arguments: Sequence[str] = (), visible: Sequence[Path] = ()) -> None:
        self.pid = 0
        self._filtered = filtered
        self._log: list[LogRecord] = []
        self._journal = journal
        journal.take = self._take_stderr
        self._sandbox = sandbox
        self._binary = binary.resolve()
        self.version = version_of(self._binary)
        self._preload = [path.resolve() for path in preload]
        self._libraries = [path.resolve() for path in libraries]
        self._environment = dict(environment or {})
        self._ports = list(ports)
        self._full_port = full_port
        self._arguments = list(arguments)
        self._visible = list(visible)
        self._process: subprocess.Popen[bytes] | None = None
        self._readers: list[OwnedThread] = []
        self._output: dict[str, list[bytes]] = {"stdout": [], "stderr": []}
        self._unfinished_line = b""
        self._stderr_ended = True
        self._exit_code: int | None = None

    @property
    def stdout(self) -> bytes:
        return b"".join(list(self._output["stdout"]))

    @property
    def stderr(self) -> bytes:
        self._journal.catch_up()
        return b"".join(self._output["stderr"])

    @property
    def log(self) -> list[LogRecord]:
        self._journal.catch_up()
        return list(self._log)

    @property
    def exit_code(self) -> int | None:
        return self._exit_code

    def start(self) -> list[socket.socket]:
        """Starts the binary. Returns the listening sockets of `ports`, then the two that keep `full_port` full."""
        if self._process is not None and self._exit_code is None:
            raise CameraError("the service is already running")
        for path in (self._binary, *self._preload):
            if not path.exists():
                raise CameraError(f"{path} is missing; build it with: cmake --build --preset host")
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with ours, theirs:
            ours.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
            ours.settimeout(_START_SECONDS)
            self._spawn(theirs)
            theirs.close()
            argv, environment = emulator.process(self._binary, self._service_environment())
            order = restrictions.launch_order(
                emulator.is_foreign(self._binary) or not self._filtered, bool(sanitizer_runtimes(self._binary)))
            with contextlib.suppress(BrokenPipeError):  # what ended the sandbox so soon is told below
                ours.send(json.dumps({"argv": [*argv, *self._arguments], "environment": environment,
                                      "ports": self._ports, "full_port": self._full_port,
                                      "restrictions": order}).encode())
            sockets = self._receive_sockets(ours)
            self._journal.add(self.name, "started", pid=self.pid)
            return sockets

    def send_signal(self, number: int) -> None:
        """Sends a signal to the service itself; nothing happens if it has ended."""
        with contextlib.suppress(ProcessLookupError):
            if self.pid and self._exit_code is None:  # 0 would be this process and those around it
                os.kill(self.pid, number)

    def wait(self, timeout: float = 10.0) -> int:
        """Waits for the end of the service; returns its exit code. Raises TimeoutError."""
        self._journal.wait_until(lambda: self._exit_code is not None, timeout)
        assert self._exit_code is not None
        return self._exit_code

    def stop(self, timeout: float = 5.0) -> int | None:
        """Ends the service with SIGTERM, after `timeout` with SIGKILL; returns its exit code, None if never started."""
        if self._process is None:
            return None
        if self._exit_code is None and self.pid:
            self.send_signal(signal.SIGTERM)
            with contextlib.suppress(TimeoutError):
                self.wait(timeout)
        if self._exit_code is None:
            self._process.kill()
        for reader in self._readers:
            reader.join()
        self._readers.clear()
        return self._exit_code

    def wait_for_log(self, wanted: str | re.Pattern[str] | Callable[[LogRecord], bool], timeout: float = 10.0,
                     since: int = 0) -> LogRecord:
        """The first record that matches: a string contained in its text, a pattern found in it, or a predicate.

        `since` is a position in the journal, as in Journal.wait_for.
        """
        def matches(record: LogRecord) -> bool:
            if isinstance(wanted, str):
                return wanted in record.text
            return wanted.search(record.text) is not None if isinstance(wanted, re.Pattern) else wanted(record)
        found: LogRecord = self._journal.wait_for(
            lambda event: event.matches("service", "log") and matches(event.record), timeout, since).record
        return found

    def _service_environment(self) -> dict[str, str]:
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
        environment.update({name: os.environ[name] for name in _PASSED_ON if name in os.environ})
        if "GCOV_PREFIX" in os.environ:
            environment["GCOV_PREFIX"] = COUNTS
        environment["LD_PRELOAD"] = ":".join([*sanitizer_runtimes(self._binary), *map(str, self._preload)])
        if self._libraries:
            environment["LD_LIBRARY_PATH"] = ":".join(map(str, self._libraries))
        return {**environment, **self._environment}

    def _spawn(self, channel: socket.socket) -> None:
        channel.set_inheritable(True)
        launcher = Path(__file__).with_name("launcher.py").read_text()
        visible = [self._binary.parent.parent, self._binary.parent, *self._preload, *self._libraries, *self._visible,
                   *emulator.needed_folders(self._binary)]
        command = [*self._sandbox.command(visible),
                   "/usr/bin/python3", "-I", "-S", "-c", launcher, str(channel.fileno())]
        self._exit_code = None
        self.pid = 0
        # A session of its own: Ctrl-C on the terminal is for the simulator, which then stops the service.
        # Its standard input stays open and empty, so that a service that reads it is seen to hang.
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, pass_fds=[channel.fileno()], start_new_session=True)
        assert self._process.stderr is not None
        os.set_blocking(self._process.stderr.fileno(), False)

    def _follow(self) -> None:
        """Reads what the process writes from here on; the journal takes the log."""
        self._stderr_ended = False
        self._readers = [OwnedThread(functools.partial(target, self._process), target.__name__)
                         for target in (self._read_stdout, self._read_stderr)]
        for reader in self._readers:
            reader.start()

    def _receive_sockets(self, channel: socket.socket) -> list[socket.socket]:
        room = socket.CMSG_SPACE(4 * 16) + socket.CMSG_SPACE(_CREDENTIALS.size)
        try:
            answer, ancillary, _, _ = channel.recvmsg(4096, room, socket.MSG_CMSG_CLOEXEC)
            descriptors: list[int] = []
            for level, kind, data in ancillary:
                if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                    descriptors = list(struct.unpack(f"{len(data) // 4}i", data))
                elif (level, kind) == (socket.SOL_SOCKET, socket.SCM_CREDENTIALS):
                    self.pid = _CREDENTIALS.unpack(data)[0]
            self._journal.add(self.name, "starting")
        finally:
            self._follow()
        sockets = [socket.socket(fileno=descriptor) for descriptor in descriptors]
        with contextlib.suppress(BrokenPipeError):
            channel.send(b".")  # now it may become the service
        failure = channel.recv(4096) if answer == b"ports" else answer or b"the sandbox ended at once"
        if failure:
            for one in sockets:
                one.close()
            self.stop()
            said = self.stderr.decode(errors="replace").strip()
            raise CameraError(f"the service did not start: {failure.decode()}" + f"\n{said}" * bool(said)
                              + f"\n{_NAMESPACES}" * said.startswith("bwrap:"))
        return sockets

    def _read_stdout(self, process: subprocess.Popen[bytes]) -> None:
        assert process.stdout is not None
        with process.stdout as stream:
            while data := os.read(stream.fileno(), 65536):
                self._output["stdout"].append(data)

    def _read_stderr(self, process: subprocess.Popen[bytes]) -> None:
        """Has the journal take the log to its end, which is the end of the service, and then takes its exit code."""
        assert process.stderr is not None
        poll = select.poll()  # select() knows no descriptors beyond 1023, which many cameras together reach
        poll.register(process.stderr, select.POLLIN)
        while not self._stderr_ended:
            poll.poll()
            self._journal.catch_up()
        process.stderr.close()
        code = process.wait()
        if process.stdin is not None:
            process.stdin.close()
        # Whoever sees the exit code and starts the service anew must not find this end behind the new beginning.
        with self._journal.locked():
            self._exit_code = code if code >= 0 else 128 - code
            self._journal.add(self.name, "ended", exit_code=self._exit_code)

    def _take_stderr(self) -> None:
        """Takes what stands in the pipe of standard error: for the journal, before it takes anything else.

        A record is in the pipe when the service goes on from it. So whoever got a message of the service finds there
        what was written before, however late the thread is that waits for the pipe.
        """
        while not self._stderr_ended:
            assert self._process is not None and self._process.stderr is not None
            try:
                data = os.read(self._process.stderr.fileno(), 65536)
            except BlockingIOError:
                return
            self._stderr_ended = not data
            self._take_output(data)

    def _take_output(self, data: bytes) -> None:
        """Takes what was written to standard error; nothing is its end, and finishes a line without a line break."""
        self._output["stderr"].append(data)
        lines = (self._unfinished_line + (data or b"\n" * bool(self._unfinished_line))).split(b"\n")
        self._unfinished_line = lines.pop()
        for line in lines:
            record = parse_record(line.decode("utf-8", "backslashreplace"))
            self._log.append(record)
            self._journal.add(self.name, "log", record=record)


@functools.lru_cache
def version_of(binary: Path) -> str:
    """The version in the note of package metadata that the service's binary has; "" for a binary without one."""
    if not binary.is_file():
        return ""
    _, _, description = binary.read_bytes().partition(_NOTE)
    try:
        return str(json.loads(description.partition(b"\0")[0])["version"])
    except (ValueError, LookupError, TypeError):
        return ""


@functools.lru_cache
def sanitizer_runtimes(binary: Path) -> tuple[str, ...]:
    """The sanitizer libraries that a binary was linked with; they must be loaded before any other library."""
    listing = subprocess.run(["ldd", str(binary)], capture_output=True, text=True, check=False).stdout
    return tuple(re.findall(r"lib[at]san\.so\S* => (\S+)", listing))
