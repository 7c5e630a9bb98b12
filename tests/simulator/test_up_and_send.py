"""camsim up and camsim send."""

from __future__ import annotations

import signal
from pathlib import Path

import pytest

from camsim_runs import CAMSIM, ROOT, Camsim, StartUp

ALL_WELL = str(ROOT / "tests/scenarios/all-well.json")


def test_every_command_gets_its_reply(camsim: Camsim, up: StartUp) -> None:
    up("--picture-bytes", 800, 900)
    done = camsim.run("send", "whiteListDown", "--faces", 31, "--wait")
    assert done.returncode == 0
    assert done.stdout.startswith("status 200: taken")
    assert "download complete: 2 pages, 31 pictures imported" in done.stdout
    assert camsim.run("send", "whiteListClear").returncode == 0
    answer = camsim.json("send", "faceNotHitDown", "--info", '{"FaceID": 7}', "--tag", 77)[0]
    assert (answer["status"], answer["tag"], answer["exit_code"]) == (200, 77, 0)


def test_arguments_reach_the_platform(camsim: Camsim, up: StartUp) -> None:
    one = up("--picture-bytes", 800, 900)
    assert camsim.run("send", "whiteListDown", "--set", "taskID=T7", "--set", "totalNum=1", "--wait").returncode == 0
    assert one.stop() == 0
    bodies = [line["fields"]["body"] for line in one.lines if line.get("title", "").startswith("POST ")]
    assert len(bodies) == 2
    assert all("T7" in body for body in bodies)


def test_exit_codes_tell_what_became_of_a_command(camsim: Camsim, up: StartUp) -> None:
    up("--fault", "platform.status=503", "--fault", "faces.silent", "--picture-bytes", 800, 900)
    assert camsim.run("send", "noSuchCommand").returncode == 3
    assert "NOT complete" in (done := camsim.run("send", "whiteListDown", "--wait")).stdout
    assert done.returncode == 7
    assert camsim.run("fault", "platform.status", "off").returncode == 0
    assert camsim.run("fault", "itgt.silent").returncode == 0
    assert camsim.run("send", "whiteListDown").returncode == 0
    assert camsim.run("send", "whiteListDown").returncode == 4
    assert "no reply within 0.5 s" in (done := camsim.run("send", "whiteListClear", "--seconds", 0.5)).stdout
    assert done.returncode == 5


def test_raw_datagrams(camsim: Camsim, up: StartUp, tmp_path: Path) -> None:
    up()
    body = b'{"taskName":"faceNotHitDown","taskInfo":{}}'
    head = bytearray(280)
    head[0:7], head[8:15], head[240], head[256] = b"/tmp/HK", b"/tmp/KH", 5, len(body)
    (tmp_path / "head").write_bytes(head)
    answer = camsim.json("send", "--raw", tmp_path / "head", "--raw", body.hex(" "))[0]
    assert (answer["status"], answer["tag"], answer["exit_code"]) == (200, 5, 0)
    assert answer["body"] == '{\n  "StatusCode" : 200\n}'
    assert camsim.json("send", "--raw", "00", "--raw", "7b")[0]["status"] == 400


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_it_cleanly(camsim: Camsim, up: StartUp, number: int) -> None:
    one = up()
    folder = Path(one.first["folder"])
    assert (folder / "tmp/HK").exists()
    assert one.stop(number) == 0
    assert "ended with code 0" in [line.get("text") for line in one.lines]
    assert not folder.exists()
    assert list(camsim.runtime.glob("camsim/*")) == []


def test_several_cameras_have_names(camsim: Camsim, up: StartUp) -> None:
    up("--name", "a")
    up("--name", "b", "--fault", "client.wrong-command")
    assert camsim.run("send", "faceNotHitDown", "--name", "a").returncode == 0
    assert camsim.run("send", "faceNotHitDown", "--name", "b").returncode == 3
    done = camsim.run("up", "--name", "a")
    assert (done.returncode, "a camera 'a' is already running" in done.stderr) == (1, True)
    done = camsim.run("send", "faceNotHitDown", "--name", "c")
    assert (done.returncode, "there is a, b; choose with --name" in done.stderr) == (6, True)


def test_own_pictures_are_the_pages(camsim: Camsim, up: StartUp, faces: Path) -> None:
    one = up("--pictures", faces)
    assert "1 pages, 3 pictures imported" in camsim.run("send", "whiteListDown", "--wait").stdout
    one.stop()
    texts = [line["text"] for line in one.lines if "text" in line]
    assert [text.rpartition(" ")[2] for text in texts if text.startswith("picture ")] == ["imported"] * 3 + ["1"]
    assert any(text.startswith("serves records 0 to 3,") for text in texts)


def test_it_works_through_a_link_from_anywhere(camsim: Camsim, up: StartUp, tmp_path: Path) -> None:
    up()
    link = tmp_path / "camera-simulator"
    link.symlink_to(CAMSIM)
    assert camsim.run("send", "whiteListClear", program=link).returncode == 0


@pytest.mark.parametrize("words, text, code", [
    (["up", "--service", "/no/such/binary"], "/no/such/binary is missing", 2),
    (["run", "--service", "/no/such/binary", ALL_WELL], "/no/such/binary is missing", 2),
    (["fleet", "1", "--service", "/no/such/binary"], "/no/such/binary is missing", 2),
    (["up", "--pictures", "/no/such/folder"], "name a folder with .jpg files", 2),
    (["up", "--fault", "itgt.slent"], "did you mean 'silent'?", 2),
    (["up", "--fault", "itgt.late=x"], "seconds is a number, not 'x'", 2),
    (["up", "--picture-bytes", "9", "8"], "--picture-bytes takes two whole numbers", 2),
    (["up", "--platform", "http://x/"], "write https://HOST:PORT/PATH", 2),
    (["up", "--result-path", "/x"], "without --platform", 2),
    (["up", "--name", "a/b"], "is not a valid camera name", 2),
    (["send", "whiteListDown"], "start one with: camsim up", 6),
    (["send"], "name a command, or bytes with --raw", 2),
    (["send", "whiteListClear", "--faces", "3"], "--faces is for whiteListDown", 2),
    (["send", "whiteListDown", "--info", "[1]"], "it is not an object", 2),
    (["send", "whiteListDown", "--set", "x"], "--set takes NAME=VALUE", 2),
    (["send", "--raw", "xyz"], "hexadecimal digits", 2),
    (["watch"], "start one with: camsim up", 6)])
def test_errors_say_what_to_do(camsim: Camsim, words: list[str], text: str, code: int) -> None:
    done = camsim.run(*words)
    assert (done.returncode, done.stdout) == (code, "")
    assert done.stderr.startswith(f"camsim {words[0]}: ")
    assert text in done.stderr
    as_json = camsim.json(*words)
    assert [text in document["error"] for document in as_json] == [True]


def test_a_service_that_ends_by_itself_is_an_error(camsim: Camsim) -> None:
    done = camsim.run("up", "--fault", "events.absent")
    assert done.returncode == 1
    assert "the service ended with code 70 while it started" in done.stderr


def test_camera_that_is_not_ready_takes_no_command_until_it_is(camsim: Camsim, up: StartUp) -> None:
    up("--fault", "itgt.no-marker")
    done = camsim.run("send", "whiteListClear")
    assert (done.returncode, "nobody accepts the command" in done.stdout) == (5, True)
    assert camsim.run("fault", "itgt.no-marker", "off").returncode == 0


def test_a_recorded_run_has_the_messages_and_the_faults(camsim: Camsim, up: StartUp, tmp_path: Path) -> None:
    one = up("--record", tmp_path / "run", "--fault", "faces.refuses")
    assert camsim.run("send", "whiteListClear", "--seconds", 0.2).returncode == 5
    assert one.stop() == 0
    text = camsim.run("trace", tmp_path / "run").stdout
    assert "7019 CMD_FACE_LIB_CLEAR" in text
    assert "faces.refuses" in text


def test_quiet_shows_only_begin_and_end(camsim: Camsim) -> None:
    process = camsim.start("up", "--quiet")
    assert process.stdout is not None
    lines = [process.stdout.readline() for _ in range(4)]
    assert lines[0].startswith("Camera camera is up, process ")
    assert camsim.run("send", "whiteListClear").returncode == 0
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60)[0] == "Camera camera is down; the service ended with code 0.\n"
    assert process.returncode == 0
