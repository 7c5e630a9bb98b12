"""camsim with a camera that boots: the same subcommands, and a shell in it."""

from __future__ import annotations

import json
import os
import signal
import subprocess
from pathlib import Path

from booted import LONG
from support import at_most

CAMSIM = str(Path(__file__).resolve().parents[2] / "simulator" / "camsim")
NAME = f"booted-{os.getpid()}"


def camsim(*words: str, text: str = "", code: int = 0) -> str:
    done = subprocess.run([CAMSIM, *words], input=text, capture_output=True, text=True, check=False,
                          env={**os.environ, "CAMSIM_NAME": NAME})
    assert done.returncode == code, done.stdout + done.stderr
    return done.stdout


def test_each_subcommand_works_with_a_booted_camera(tmp_path: Path) -> None:
    """It ends with 141 when nobody reads its output any more: so it is waited for before that is closed."""
    recording = tmp_path / "run"
    with subprocess.Popen([CAMSIM, "up", "--machine", "--quiet", "--json", "--name", NAME, "--record", recording],
                          stdout=subprocess.PIPE, text=True) as up:
        assert up.stdout is not None
        assert json.loads(up.stdout.readline())["up"]
        try:
            with subprocess.Popen([CAMSIM, "watch", "--name", NAME, "--json"], stdout=subprocess.PIPE,
                                  text=True) as watch:
                assert watch.stdout is not None
                watch.stdout.readline()  # it looks on from here
                sent = camsim("send", "whiteListDown", "--faces", "30", "--wait", "--json")
                assert json.loads(sent)["status"] == 200
                assert any("whiteListResult" in line for line in watch.stdout)
                watch.terminate()
            assert f"camera {NAME}, " in camsim("status")
            camsim("fault", "platform.status", "on", "code=503", "at=pages")
            assert "platform.status" in camsim("status")
            assert "503" in camsim("send", "whiteListDown", "--faces", "30", "--wait", code=7)
            assert "ActiveState=active" in camsim("shell", text="systemctl show camgate -p ActiveState\n")
        finally:
            up.send_signal(signal.SIGINT)
            assert up.wait(at_most(LONG)) == 0
    told = camsim("trace", str(recording))
    assert "whiteListDown" in told and "503" in told


def test_a_scenario_is_played_on_a_booted_camera() -> None:
    assert "as expected" in camsim("run", "--machine", "faces-truncated")
