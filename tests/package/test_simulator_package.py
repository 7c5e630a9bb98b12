"""The simulated camera as an integrator has it: from the unpacked packages, without the repository."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

from packages import package

_PROGRAM = """
import sys
from pathlib import Path
import simulator
from simulator.cli.recordings.export import DISSECTOR
tree = Path(sys.argv[1])
assert tree in Path(simulator.__file__).parents, simulator.__file__
assert DISSECTOR.is_file() and tree in DISSECTOR.parents, DISSECTOR
with simulator.Camera(libraries=list(tree.glob("usr/lib/*-linux-gnu"))) as camera:
    print(camera.client.command("faceNotHitDown", {"still": "there"}).status)
"""


def test_it_brings_up_the_packaged_service(tmp_path: Path) -> None:
    for name in ("camgate", "camgate-simulator"):
        subprocess.run(["dpkg-deb", "--extract", str(package(name)), str(tmp_path)], check=True)
    environment = {**os.environ, "PYTHONPATH": str(tmp_path / "usr/lib/python3/dist-packages"),
                    "CAMGATE_BUILD": str(tmp_path / "usr/lib/camgate")}
    made = subprocess.run(["/usr/bin/python3", "-B", "-c", _PROGRAM, str(tmp_path)], env=environment, cwd="/",
                          capture_output=True, text=True, check=False, timeout=60)
    assert (made.stdout, made.returncode) == ("200\n", 0), made.stderr
