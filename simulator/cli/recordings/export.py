"""`camsim export FILE --pcapng OUT`: a recorded run for other programs."""

from __future__ import annotations

import argparse
from pathlib import Path

from simulator.capture.capture import write
from simulator.cli import options
from simulator.cli.command_line import print_json
from simulator.trace.recording import read

HELP = "write a recorded run as a capture for Wireshark"
EXAMPLES = ("camsim export gate.run --pcapng gate.pcapng",)
# Beside the simulator, in the repository and in its package.
DISSECTOR = Path(__file__).resolve().parents[3] / "contracts/camgate.lua"


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("file", type=Path, metavar="FILE", help="a recorded run")
    parser.add_argument("--pcapng", type=Path, metavar="OUT", required=True, help="write it as a pcapng file")
    options.add_json(parser)


def run(arguments: argparse.Namespace) -> int:
    packets = write(read(arguments.file), arguments.pcapng)
    if arguments.json:
        print_json({"capture": str(arguments.pcapng), "packets": packets, "dissector": str(DISSECTOR)})
        return 0
    print(f"{arguments.pcapng}: {packets} packets; wireshark -X lua_script:{DISSECTOR} {arguments.pcapng}")
    return 0
