"""camsim fleet: many cameras against one platform."""

from __future__ import annotations

import argparse
from typing import Any

from rich.table import Table
from rich.text import Text

from simulator.cli import options
from simulator.cli.command_line import (DONE, FAILED, STOPPED, WRONG_ARGUMENTS, CodedError, Stopped, print_json,
                                        stoppable)
from simulator.cli.fleet import Fleet
from simulator.trace.terminal.terminal import Terminal

HELP = "run many cameras against one platform and report what the platform sees"
DESCRIPTION = """\
Runs N cameras, each in its own sandbox, has each of them fetch faces from one platform, and reports what
that platform sees: requests, bytes, connections, how long downloads take, and how much memory a camera
uses. docs/fleet.md evaluates the numbers."""
EXAMPLES = ("camsim fleet 50 --spread 30", "camsim fleet 3 --faces 31 --json",
            "camsim fleet 10 --platform https://localhost:9443/platform/whiteList")
_BLOCKS = " ▁▂▃▄▅▆▇█"


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("cameras", type=int, metavar="N", help="how many cameras, 1 to 500")
    parser.add_argument("--faces", type=int, metavar="N", help="faces for each camera (75, or all own pictures)")
    parser.add_argument("--spread", type=float, default=10.0, metavar="S",
                        help="seconds over which the commands are spread; 0: all at once (10)")
    parser.add_argument("--seconds", type=float, default=300.0, metavar="S",
                        help="how long to wait for the last download after the last command (300)")
    options.add_service(parser)
    options.add_platform(parser)
    parser.set_defaults(transparent=True)  # what is measured is the camera and the platform, with nothing between
    options.add_pictures(parser)
    options.add_itgt(parser)
    options.add_json(parser, "print the measurements as one JSON object")


def run(arguments: argparse.Namespace) -> int:
    if not 1 <= arguments.cameras <= 500 or not 0 <= arguments.spread <= 86_400:
        raise CodedError("N is 1 to 500, and --spread 0 to 86400 seconds", WRONG_ARGUMENTS)
    console = Terminal()
    make = options.platform_maker(arguments) if arguments.platform or arguments.result_path else None
    fleet = Fleet(arguments.cameras, arguments.faces, arguments.spread, options.service_of(arguments), make,
                  lambda subject: options.apply_settings(subject, arguments))
    with stoppable():
        try:
            result = fleet.run(arguments.seconds, lambda text: None if arguments.json else console.print(text))
        except Stopped:
            return STOPPED
    if arguments.json:
        print_json(result)
    else:
        _draw(console, result)
    return DONE if result["complete"] == arguments.cameras else FAILED


def _draw(console: Terminal, result: dict[str, Any]) -> None:
    view = result["platform"]
    rows = {"cameras": f"{result['cameras']}, {result['faces']} faces each, "
                       f"commands spread over {result['spread_seconds']:g} s",
            "downloads complete": f"{result['complete']} of {result['cameras']}, in {result['seconds']:.1f} s"}
    if "requests" in view:
        rows["requests"] = (f"{view['requests']}, {view['requests_per_second']:.1f} a second, "
                            f"{view['requests_in_busiest_second']} in the busiest")
        rows["bytes sent"] = (f"{view['bytes_sent'] / 1e6:.1f} MB, "
                              f"{view['bytes_sent_per_second'] / 1e6:.2f} MB a second, "
                              f"{view['bytes_sent_in_busiest_second'] / 1e6:.2f} MB in the busiest")
        rows["bytes received"] = f"{view['bytes_received'] / 1e3:.1f} kB"
        rows["handshakes"] = (f"{view['handshakes']}, {_milliseconds(view['handshake_processor_seconds'])} of the "
                              f"platform's processor, {_milliseconds(view['handshake_seconds'])} from end to end")
    else:
        rows["bytes to the cameras"] = (f"{view['encrypted_bytes_sent'] / 1e6:.1f} MB with TLS, "
                                        f"{view['encrypted_bytes_sent_per_second'] / 1e6:.2f} MB a second")
        rows["bytes from the cameras"] = f"{view['encrypted_bytes_received'] / 1e3:.1f} kB with TLS"
    rows["connections"] = (f"{view['connections']}, {view['connections_per_second']:.1f} a second, at most "
                           f"{view['concurrent']['peak']} at once")
    rows["at once, by second"] = _bars(view["concurrent"]["each_second"])
    rows["download took"] = _spread(result["completion_seconds"], 1, " s")
    rows["memory of a service"] = _spread(result["memory_bytes"], 1e6, " MB, shared with no other")
    rows["its peak"] = _spread(result["memory_peak_bytes"], 1e6, " MB with its libraries")
    table = Table(title="What the platform sees", title_justify="left", title_style="bold", show_header=False)
    for name, value in rows.items():
        table.add_row(Text(name), Text(value))
    console.print(table)


def _milliseconds(spread: dict[str, float] | None) -> str:
    return f"{spread['median'] * 1e3:.2f} ms" if spread else "no time"


def _spread(spread: dict[str, float] | None, unit: float, name: str) -> str:
    if spread is None:
        return "nothing measured"
    return (f"{spread['least'] / unit:.1f} to {spread['most'] / unit:.1f}{name}; half of them up to "
            f"{spread['median'] / unit:.1f}, nine tenths up to {spread['nine_tenths'] / unit:.1f}")


def _bars(values: list[int]) -> str:
    """A block for each second, or for several when there are many."""
    step = -(-len(values) // 60) or 1
    grouped = [max(values[start:start + step]) for start in range(0, len(values), step)]
    highest = max(grouped, default=0) or 1
    return "".join(_BLOCKS[-(-value * (len(_BLOCKS) - 1) // highest)] for value in grouped)
