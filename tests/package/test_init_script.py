"""The init script, run by dash in a sandbox with the real service and the camera's peers around it."""

from __future__ import annotations

import os
import signal
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from simulator import Camera, build_folder
from simulator.device import emulator
from simulator.device.service import sanitizer_runtimes

SCRIPT = Path(__file__).resolve().parents[2] / "packaging" / "camgate.init"
PROGRAM = "/usr/sbin/protocol_process"
PID_FILE = "/run/camgate.pid"
# Codes of the Linux Standard Base.
USAGE, UNIMPLEMENTED, NOT_ALLOWED, NOT_INSTALLED = 2, 3, 4, 5
DEAD_WITH_PID_FILE, NOT_RUNNING = 1, 3

# In the place of the system's log: keeps what it is given.
LOGGER = "#!/bin/sh\nexec cat >>/tmp/system_log\n"
# A program that a stop signal does not end.
_IGNORING = 'trap "" TERM; while :; do sleep 1; done'  # pause: it does nothing
STUBBORN = f"#!/usr/bin/python3\nimport os, sys\n" \
           f"os.execv('/bin/sh', ['{PROGRAM}', '-c', '{_IGNORING}'])\n"


class Machine:
    """A sandbox that lasts, with a shell in it that runs one command after the other."""

    def __init__(self, camera: Camera, program: str | None, folder: Path, uid: int = 0) -> None:
        binary = build_folder() / "bin" / "protocol_process"
        folder.mkdir(exist_ok=True)
        files = {"logger": LOGGER} if program is None else {"logger": LOGGER, "protocol_process": program}
        arguments = ["--tmpfs", "/run", "--tmpfs", "/usr/sbin"]
        for name, text in files.items():
            (folder / name).write_text(text)
            (folder / name).chmod(0o755)
            arguments += ["--ro-bind", str(folder / name), f"/usr/sbin/{name}"]
        if os.geteuid() != uid:
            arguments += ["--unshare-user", "--uid", str(uid), "--gid", str(uid)]
        command = camera.sandbox.command([SCRIPT, binary.parent.parent, *emulator.needed_folders(binary)])
        self._shell = subprocess.Popen([*command[:-1], *arguments, "--", "dash"], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def run(self, command: str) -> tuple[int, str]:
        """The exit code and the output of a command."""
        assert self._shell.stdin and self._shell.stdout
        self._shell.stdin.write(f"{{ {command}\n}} </dev/null\ncode=$?\necho\necho \"end of command $code\"\n")
        self._shell.stdin.flush()
        output = ""
        for line in self._shell.stdout:
            if line.startswith("end of command "):
                return int(line.split()[-1]), output.strip()
            output += line
        raise AssertionError(f"the shell has ended: {output}")

    def script(self, *words: str) -> tuple[int, str]:
        return self.run(" ".join(["dash", str(SCRIPT), *words]))

    def pid(self) -> str:
        return self.run(f"cat {PID_FILE}")[1]

    def close(self) -> None:
        assert self._shell.stdin and self._shell.stdout
        self._shell.kill()
        self._shell.wait()
        self._shell.stdin.close()
        self._shell.stdout.close()


def service_program() -> str:
    """Becomes the service under test, as the simulator starts it, with the installed program's name."""
    binary = build_folder() / "bin" / "protocol_process"
    preload = ":".join([*sanitizer_runtimes(binary), str(build_folder() / "lib" / "libcamera_devices.so")])
    words, environment = emulator.process(binary, {"LD_PRELOAD": preload})
    words = [PROGRAM] if words == [str(binary)] else [words[0], "-0", PROGRAM, *words[1:]]
    path = words[0] if len(words) > 1 else str(binary)
    return f"#!/usr/bin/python3 -IS\nimport os\nos.execve({path!r}, {words!r}, {{**os.environ, **{environment!r}}})\n"


@pytest.fixture
def start_machine(tmp_path: Path) -> Iterator[Callable[..., tuple[Machine, Camera]]]:
    """start_machine(program=..., uid=..., **arguments of Camera): the machine, and the camera with its peers.

    program  text of the executable that is installed; default: the service. None: nothing is installed.
    """
    machines: list[Machine] = []
    cameras: list[Camera] = []

    def start(program: str | None = "", uid: int = 0, **arguments: bool) -> tuple[Machine, Camera]:
        camera = Camera(start=False, **arguments)
        cameras.append(camera)
        camera.__enter__()
        machines.append(Machine(camera, service_program() if program == "" else program, tmp_path / "sbin", uid))
        return machines[-1], camera

    yield start
    for machine in machines:
        machine.close()
    for camera in cameras:
        camera.close()


StartMachine = Callable[..., tuple[Machine, Camera]]


def expect_serving(camera: Camera) -> None:
    assert camera.client.command("faceNotHitDown", {"a": 1}).status == 200


def limited_wait(condition: str) -> str:
    """Shell text that waits, for at most ten seconds or so, until the condition is met, and fails when it is not."""
    return f"for i in $(seq 200); do {condition} && break; sleep 0.05; done; {condition}"  # pause: looked at again


def wait_command_socket(camera: Camera, machine: Machine) -> None:
    camera.wait_until(lambda: camera.itgt.requests(1037))
    code, output = machine.run(limited_wait("[ -S /tmp/HK ]"))
    assert code == 0, output


def test_start_status_stop_each_twice(start_machine: StartMachine) -> None:
    machine, camera = start_machine()
    assert machine.script("status") == (NOT_RUNNING, "camgate: does not run")
    code, output = machine.script("start")
    pid = machine.pid()
    assert (code, output) == (0, f"camgate: started (process {pid})")
    wait_command_socket(camera, machine)
    expect_serving(camera)
    assert machine.script("status") == (0, f"camgate: runs (process {pid})")
    assert machine.script("start") == (0, f"camgate: runs already (process {pid})")
    assert machine.pid() == pid
    expect_serving(camera)
    assert machine.script("stop") == (0, "camgate: stopped")
    # Whoever is to learn of its end may not have asked yet: it has a number then, but no program any more.
    assert machine.run(f"grep -q . /proc/{pid}/cmdline")[0] != 0, "it has ended when the script has"
    assert machine.run(f"ls {PID_FILE}")[0] != 0
    assert machine.script("status") == (NOT_RUNNING, "camgate: does not run")
    assert machine.script("stop") == (0, "camgate: does not run")
    assert "waitForTerminationRequest sucess!" in camera.path("/tmp/system_log").read_text()


@pytest.mark.parametrize("action", ["restart", "force-reload", "try-restart"])
def test_restart_makes_a_new_process(start_machine: StartMachine, action: str) -> None:
    machine, camera = start_machine()
    machine.script("start")
    before = machine.pid()
    code, output = machine.script(action)
    assert (code, output) == (0, f"camgate: stopped\ncamgate: started (process {machine.pid()})")
    assert machine.pid() != before
    wait_command_socket(camera, machine)
    expect_serving(camera)


def test_restart_starts_what_does_not_run_and_try_restart_does_not(start_machine: StartMachine) -> None:
    machine, _ = start_machine()
    assert machine.script("try-restart") == (0, "")
    assert machine.script("status")[0] == NOT_RUNNING
    assert machine.script("restart")[0] == 0
    assert machine.script("status")[0] == 0


def test_start_does_not_wait_for_itgt(start_machine: StartMachine) -> None:
    machine, _ = start_machine(marker=False)
    assert machine.script("start")[0] == 0
    assert machine.script("status")[0] == 0
    assert machine.script("stop") == (0, "camgate: stopped")


@pytest.mark.parametrize("content", ["4000000", "$$", "", "-1", "1 2", "x"])
def test_stale_pid_file_is_not_believed(start_machine: StartMachine, content: str) -> None:
    """The number may have gone to another process, here the shell itself: it must live on."""
    machine, _ = start_machine()
    machine.run(f"echo {content} >{PID_FILE}")
    assert machine.script("status") == (DEAD_WITH_PID_FILE, f"camgate: does not run, and has left {PID_FILE} behind")
    assert machine.script("stop") == (0, "camgate: does not run")
    machine.run(f"echo {content} >{PID_FILE}")
    assert machine.script("start") == (0, f"camgate: started (process {machine.pid()})")


def test_killed_service_is_seen_and_can_be_started_again(start_machine: StartMachine) -> None:
    machine, _ = start_machine()
    machine.script("start")
    machine.run(f"kill -KILL {machine.pid()}; {limited_wait(f'! kill -0 {machine.pid()}')}")
    assert machine.script("status")[0] == DEAD_WITH_PID_FILE
    assert machine.script("start")[0] == 0


@pytest.mark.parametrize("action", ["start", "restart"])
def test_without_the_program(start_machine: StartMachine, action: str) -> None:
    machine, _ = start_machine(program=None)
    assert machine.script(action) == (NOT_INSTALLED, f"camgate: {PROGRAM} is not installed")
    assert machine.script("stop")[0] == 0
    assert machine.script("status")[0] == NOT_RUNNING


def test_failing_start_is_told_and_its_reason_is_in_the_log(start_machine: StartMachine) -> None:
    machine, camera = start_machine(events=False)
    code, output = machine.script("start")
    assert code == 1 and output.startswith("camgate: has ended again at once")
    assert machine.script("status")[0] == NOT_RUNNING
    assert "nRet == IPC_SUCCESS" in camera.path("/tmp/system_log").read_text()


def test_program_that_does_not_end_is_killed(start_machine: StartMachine) -> None:
    machine, _ = start_machine(program=STUBBORN)
    assert machine.script("start")[0] == 0
    pid = machine.pid()
    assert machine.script("stop") == (0, "camgate: has not ended within 5 seconds; killing it\ncamgate: stopped")
    assert machine.run(f"grep -q . /proc/{pid}/cmdline")[0] != 0


def test_wrong_use(start_machine: StartMachine) -> None:
    machine, _ = start_machine()
    for words in ((), ("frobnicate",), ("START",)):
        code, output = machine.script(*words)
        assert code == USAGE and output.startswith("usage: camgate.init start | stop | restart")
    assert machine.script("reload")[0] == UNIMPLEMENTED
    assert machine.script("status")[0] == NOT_RUNNING


def test_only_root_starts_and_stops_it_and_anybody_asks(start_machine: StartMachine) -> None:
    machine, _ = start_machine(uid=1234)
    for action in ("start", "stop", "restart"):
        assert machine.script(action) == (NOT_ALLOWED, "camgate: only root may do that")
    assert machine.script("status")[0] == NOT_RUNNING


def test_it_lives_on_when_the_terminal_goes(start_machine: StartMachine) -> None:
    machine, camera = start_machine()
    machine.script("start")
    wait_command_socket(camera, machine)
    machine.run(f"kill -{int(signal.SIGHUP)} {machine.pid()}")
    expect_serving(camera)
    assert machine.script("status")[0] == 0


def test_it_has_the_header_that_init_reads() -> None:
    text = SCRIPT.read_text()
    begin, end = text.index("### BEGIN INIT INFO\n"), text.index("### END INIT INFO\n")
    fields = {line[2:].partition(":")[0] for line in text[begin:end].splitlines()[1:]}
    assert {"Provides", "Required-Start", "Required-Stop", "Default-Start", "Default-Stop",
            "Short-Description"} <= fields
