"""What a page, a command, a record and the start cost the camera's processor, in its own instructions."""

from __future__ import annotations

import functools
import os
import subprocess
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from benchmarks import command_rows, measuring, metadata_rows, page_rows, standing_rows
from benchmarks.comparison.results import Row, Series
from benchmarks.measuring import SERVICE
from simulator import CameraError
from simulator.device import emulator

GROUP = "The camera's processor"
# As in many a camera: without instructions for AES, which the emulator's own has.
PROCESSOR = "cortex-a7"
LOOP = "datagram_loop"
RECORDS = "metadata_records"
COUNTED_COMMANDS = 500
COUNTED_PAGES = 5
RECORD_KILOBYTES = 10
COUNTED_RECORDS = 40
# Pictures of two sizes tell what a page costs by itself from what each of its bytes costs.
PICTURES = ((500, 500), (5_500, 5_500))
_PLUGIN = "instruction_count.so"


def rows() -> tuple[list[Row], list[Series]]:
    """Nothing where there is no build for the processor: scripts/bootstrap --armhf makes its root."""
    if measuring.armhf_folder() is None:
        return [], []
    with _plugin() as plugin:
        return [_start(plugin), *_page(plugin), *(_command(plugin, name, body)
                                                  for name, body in command_rows.COMMANDS.items()),
                _record(plugin)], []


@contextmanager
def _plugin() -> Iterator[Path]:
    """Builds what counts. The emulator's interface has had another number since version 9."""
    printed = subprocess.run(["qemu-arm", "--version"], capture_output=True, text=True, check=True).stdout
    version = 2 if int(printed.split()[2].partition(".")[0]) >= 9 else 1
    source = Path(__file__).with_name("instruction_count.c")
    with tempfile.TemporaryDirectory(prefix="benchmark", dir=measuring.build_folder()) as folder:
        plugin = Path(folder) / _PLUGIN
        subprocess.run(["gcc", "-O2", "-shared", "-fPIC", f"-DPLUGIN_VERSION={version}", "-o", plugin, source],
                       check=True)
        yield plugin


def _binary(name: str) -> Path:
    folder = measuring.armhf_folder()
    if folder is None or not (folder / name).exists():
        raise CameraError(f"{name} is missing for 32-bit ARM")
    return folder / name


@functools.lru_cache
def _preload() -> str:
    return str(_binary(SERVICE).parent.parent / "lib" / "libcamera_devices.so")


def _words(plugin: Path, name: str, counts: str) -> list[str]:
    """The command that runs a program of the camera's and writes how many instructions it took."""
    words, _ = emulator.process(_binary(name), {"LD_PRELOAD": _preload()})
    return [words[0], "-cpu", PROCESSOR, "-U", "LD_LIBRARY_PATH", "-plugin", f"file={plugin},counts={counts}",
            *words[1:]]


def _count(plugin: Path, name: str, work: measuring.Work, **settings: object) -> float:
    command = "exec " + " ".join(_words(plugin, name, measuring.COUNTS))
    visible = [*emulator.needed_folders(_binary(name)), _binary(name).parents[1]]
    return measuring.instructions(command, work, preload=[], visible=visible, **settings)


def _start(plugin: Path) -> Row:
    ours, theirs = (_count(plugin, name, measuring.wait_for_commands) for name in (SERVICE, standing_rows.SMALLEST))
    return Row(GROUP, "start and stop", standing_rows.AGAINST, ours / theirs, aim=1.15, tolerance=0.05,
               parts={"service, million": ours / 1e6, "smallest server, million": theirs / 1e6})


def _page(plugin: Path) -> list[Row]:
    """Pages of a download behind its first, of two sizes."""
    costs, sizes = [], []
    for pictures in PICTURES:
        more, one = (_count(plugin, SERVICE, page_rows.service(pages, pictures))
                     for pages in (1 + COUNTED_PAGES, 1))
        costs.append((more - one) / COUNTED_PAGES)
        sizes.append(page_rows.page_size(pictures))
    of_byte = (costs[1] - costs[0]) / (sizes[1] - sizes[0])
    return [Row(GROUP, "a page with its report, without its pictures", "", (costs[0] - of_byte * sizes[0]) / 1e6,
                "million instructions", tolerance=0.05),
            Row(GROUP, "each MB of a page", "", of_byte, "million instructions", tolerance=0.05)]


def _command(plugin: Path, name: str, body: str) -> Row:
    def cost(program: str) -> float:
        def work(count: int) -> measuring.Work:
            return lambda camera: (measuring.wait_for_commands(camera), command_rows.ask(camera, body, count))[0]
        more, one = (_count(plugin, program, work(count), client=False) for count in (1 + COUNTED_COMMANDS, 1))
        return (more - one) / COUNTED_COMMANDS / 1000
    ours, theirs = cost(SERVICE), cost(LOOP)
    return Row(GROUP, f"a command, {name}", "", ours, "thousand instructions", tolerance=0.05,
               parts={"service, thousand": ours, "bare C loop, thousand": theirs})


def _record(plugin: Path) -> Row:
    with tempfile.TemporaryDirectory(prefix="benchmark") as folder:
        record = metadata_rows.written(folder, RECORD_KILOBYTES)

        def cost(how: str) -> float:
            counted = []
            for count in (2 * COUNTED_RECORDS, COUNTED_RECORDS):
                counts = Path(folder) / "counts"
                words = _words(plugin, RECORDS, str(counts))
                subprocess.run([*words, how, folder, str(record), str(count)], capture_output=True, check=True,
                               timeout=measuring.PATIENCE, env={"PATH": os.environ["PATH"]})
                counted.append(measuring.total(counts.read_text()))
            return (counted[0] - counted[1]) / COUNTED_RECORDS / 1000
        ours, theirs = cost("task"), cost("parser")
    return Row(GROUP, f"a record of {RECORD_KILOBYTES} KB", "parser alone", ours / theirs, aim=1.1, tolerance=0.05,
               parts={"service, thousand": ours, "parser alone, thousand": theirs})
