"""The examples for Node and Go serve a whole download; those in Python and C are tried by tests/simulator."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from example_programs import EXAMPLES, ExamplePlatform, expect_download, expect_refusals, running

from simulator import Camera

COMMANDS = {"node": ["node", str(EXAMPLES / "platform/node/platform.js")],
            "go": ["go", "run", str(EXAMPLES / "platform/go/platform.go")]}


@pytest.fixture(params=COMMANDS)
def platform(request: pytest.FixtureRequest, tmp_path: Path) -> Iterator[ExamplePlatform]:
    """One of them. What Go builds goes to a folder of the test; nothing is asked of a network."""
    environment = {"GOCACHE": str(tmp_path / "cache"), "GOPATH": str(tmp_path / "path"), "GOPROXY": "off"}
    with running(COMMANDS[request.param], tmp_path, environment) as one:
        yield one


def test_it_serves_a_whole_download_and_goes_on_after_nonsense(make_camera: Callable[..., Camera],
                                                               platform: ExamplePlatform) -> None:
    expect_refusals(platform)
    expect_download(make_camera, platform)
