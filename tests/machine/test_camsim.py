"""camsim with a camera that boots: the same subcommands, and a shell in it."""

from __future__ import annotations

import json
import os
import signal
import subprocess
from pathlib import Path

CAMSIM = str(Path(__file__).resolve().parents[2] / "simulator" / "camsim")
NAME = f"booted-{os.getpid()}"


def camsim(*words: str, text: str = "") -> str:
    done = subprocess.run([CAMSIM, *words], input=text, capture_output=True, text=True, check=False,
                          env={**os.environ, "CAMSIM_NAME": NAME})
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def test_up_send_status_and_shell() -> None:
    with subprocess.Popen([CAMSIM, "up", "--machine", "--quiet", "--json", "--name", NAME], stdout=subprocess.PIPE,
                          text=True) as up:
        assert up.stdout is not None
        assert json.loads(up.stdout.readline())["up"]
        try:
            assert json.loads(camsim("send", "whiteListDown", "--faces", "30", "--wait", "--json"))["status"] == 200
            assert f"camera {NAME}, " in camsim("status")
            assert "ActiveState=active" in camsim("shell", text="systemctl show camgate -p ActiveState\n")
        finally:
            up.send_signal(signal.SIGINT)
    assert up.returncode == 0
