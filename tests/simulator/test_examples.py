"""The examples in Python and C do what their README says; those for Node and Go are in tests/servers."""

from __future__ import annotations

import re
import socket
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from camsim_runs import Camsim, StartUp
from example_programs import EXAMPLES, expect_download, expect_refusals, post, running
from simulator import Camera
from support import DEADLINE

PLATFORM = [sys.executable, str(EXAMPLES / "platform/python/platform.py")]
ANSWERED = '{\n  "StatusCode" : 200\n}\n'


def test_python_platform_serves_a_whole_download(make_camera: Callable[..., Camera], tmp_path: Path) -> None:
    with running(PLATFORM, tmp_path) as platform:
        expect_download(make_camera, platform)


def test_python_platform_goes_on_after_nonsense_and_beside_a_silent_camera(tmp_path: Path) -> None:
    with running(PLATFORM, tmp_path) as platform, socket.create_connection(("localhost", platform.port)):
        expect_refusals(platform)
        assert post(platform.port, "/faces/page", b'{"startIndex":0,"offset":1}') == 200


@pytest.fixture(scope="module")
def c_client(tmp_path_factory: pytest.TempPathFactory) -> list[str]:
    program = tmp_path_factory.mktemp("client") / "client"
    subprocess.run(["gcc", "-Wall", "-Wextra", "-Werror", f"-I{EXAMPLES.parent / 'contracts'}", "-o", str(program),
                    str(EXAMPLES / "client/c/client.c")], check=True, timeout=DEADLINE)
    return [str(program)]


@pytest.fixture(params=["c", "python"])
def client(request: pytest.FixtureRequest, c_client: list[str]) -> Callable[..., subprocess.CompletedProcess[str]]:
    """client(*words) runs one of the two to its end."""
    command = c_client if request.param == "c" else [sys.executable, str(EXAMPLES / "client/python/client.py")]

    def run(*words: object) -> subprocess.CompletedProcess[str]:
        done = subprocess.run([*command, *map(str, words)], capture_output=True, text=True, timeout=DEADLINE,
                              check=False)
        assert "Traceback" not in done.stderr, done.stderr
        return done
    return run


Client = Callable[..., subprocess.CompletedProcess[str]]


@pytest.fixture
def folder(camsim: Camsim) -> Path:
    """Stands for /tmp; short, because paths of sockets are."""
    path = camsim.runtime / "tmp"
    path.mkdir()
    return path


def test_client_prints_the_reply(client: Client, camsim: Camsim, up: StartUp) -> None:
    stands_for_tmp = Path(up().first["client_folder"])
    done = client(EXAMPLES / "client/face.json", stands_for_tmp)
    assert (done.stdout, done.stderr, done.returncode) == (ANSWERED, "", 0)
    done = client(EXAMPLES / "client/unknown.json", stands_for_tmp)
    assert (done.stdout, done.returncode) == (ANSWERED.replace("200", "400"), 0)
    assert not (stands_for_tmp / "KH").exists()


def test_client_takes_over_the_socket_of_one_that_was_killed(client: Client, up: StartUp) -> None:
    stands_for_tmp = Path(up().first["client_folder"])
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as killed:
        killed.bind(str(stands_for_tmp / "KH"))
    assert client(EXAMPLES / "client/face.json", stands_for_tmp).stdout == ANSWERED


@pytest.mark.parametrize("file", ["/no/such/file", "/tmp"])
def test_client_says_that_its_file_cannot_be_read(client: Client, folder: Path, file: str) -> None:
    done = client(file, folder)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(rf"client: {file}: (No such file|Is a) [\w ]+; name a file with a command, .*\n", done.stderr)
    assert list(folder.iterdir()) == []


def test_client_says_that_the_service_is_not_there(client: Client, folder: Path) -> None:
    for why in ("No such file or directory", "Connection refused"):
        done = client(EXAMPLES / "client/face.json", folder)
        assert (done.returncode, done.stdout) == (1, "")
        assert done.stderr == (f"client: {folder}/HK: {why}; is the service running, and ITGT ready? Try again "
                               "later\n")
        assert not (folder / "KH").exists()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ended:
            if not (folder / "HK").exists():
                ended.bind(str(folder / "HK"))


def test_client_says_that_it_may_not_write_there(client: Client, folder: Path) -> None:
    done = client(EXAMPLES / "client/face.json", folder / "missing")
    assert (done.returncode, done.stdout) == (1, "")
    assert f"client: {folder}/missing/KH: No such file or directory; run as root or as a user who" in done.stderr


@pytest.fixture
def silent_service(folder: Path) -> Iterator[socket.socket]:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as service:
        service.bind(str(folder / "HK"))
        yield service


@pytest.mark.seconds(10)
def test_client_gives_up_after_its_time(client: Client, folder: Path, silent_service: socket.socket) -> None:
    done = client(EXAMPLES / "client/face.json", folder)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.match(r"client: no reply.*; read the service's log before you send the command again\n$", done.stderr)
    assert [len(silent_service.recv(1000)) for _ in range(2)] == [
        280, len((EXAMPLES / "client/face.json").read_bytes())]


@pytest.mark.parametrize("words", [(), ("a", "b", "c")])
def test_client_explains_its_usage(client: Client, words: tuple[str, ...]) -> None:
    done = client(*words)
    assert (done.returncode, done.stdout) == (2, "")
    assert "usage: client" in done.stderr
