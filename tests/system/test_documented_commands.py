"""Every command of docs/messages.md: its example is taken by the service, and the simulator knows it."""

from __future__ import annotations

import json
import re
from pathlib import Path

from simulator import Camera
from simulator.cli.scenarios.settings import SCHEMA

DOCUMENT = Path(__file__).resolve().parents[2] / "docs/messages.md"
EXAMPLES = {json.loads(line)["taskName"]: line for line in
            re.findall(r'^\{"taskName":.*\}$', DOCUMENT.read_text(encoding="utf-8"), re.MULTILINE)}


def test_simulator_knows_the_documented_commands() -> None:
    assert set(EXAMPLES) == set(SCHEMA["definitions"]["send"]["properties"]["send"]["enum"])


def test_examples_are_taken(camera: Camera) -> None:
    assert len(EXAMPLES) > 2
    answers = {name: camera.client.wait_reply(camera.client.send_body(example.encode())).status
               for name, example in EXAMPLES.items()}
    assert answers == dict.fromkeys(EXAMPLES, 200)
