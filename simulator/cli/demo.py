"""`./demo`: a camera on this machine, every command carried out before your eyes."""

from __future__ import annotations

import argparse
import json
import sys
import time
from collections.abc import Sequence
from pathlib import Path

from simulator.camera import RING_BUFFER, Camera, build_folder
from simulator.cli.ending import OUTPUT_CLOSED, STOPPED, Stopped, complete_streams, flushed, stoppable
from simulator.errors import CameraError
from simulator.messages.describe import describe_notification
from simulator.messages.wire import IMPORTED, PAGE_SIZE
from simulator.trace.display import Display

_SCENES = ("whiteListDown", "whiteListClear", "faceNotHitDown", "metadata")
_RECEIVE_TASK_PAUSE = 1.0  # seconds between two looks of the service's receive task for an observer
_METADATA = {"ChannelID": 1, "Timestamp": 1715934600, "FaceID": 7, "FaceScore": 93, "FaceAge": 34}
_DOCUMENT = {"FaceID": 7, "cameraCode": "C1", "note": "met at the gate, not in any list: 未命中"}


class Unexpected(Exception):
    """The demonstration did not come out as it should; the text says what was seen and what was expected."""


def white_list_down(camera: Camera, show: Display, faces: int) -> None:
    pages = -(-faces // PAGE_SIZE)
    show.heading(f"whiteListDown: faces come down from the platform, {faces} in pages of up to {PAGE_SIZE}")
    camera.itgt.picture_seconds = 0.02
    begin, begin_time = len(camera.journal), time.monotonic()
    _command(camera, show, "whiteListDown", camera.platform.task(faces=faces))
    _wait_for_end(camera, begin, 30.0 + 5.0 * pages)
    events = camera.journal.events[begin:]
    imported = [event for event in events if event.matches("itgt", "picture", result=IMPORTED)]
    served = [event for event in events if event.matches("platform", "page")]
    reports = [event.request.json() for event in events if event.matches("platform", "report")]
    handshakes = [event for event in events if event.matches("platform", "handshake")]
    show.summary("The download", {
        "pages served": str(len(served)),
        "records served": " + ".join(str(event.records) for event in served) or "0",
        "bytes served": f"{sum(event.bytes for event in served):,}",
        "pictures imported": f"{len(imported)} of {faces}",
        "reports to the platform": str(len(reports)),
        "faces reported as imported": str(_reported(reports)),
        "connections": f"{len(handshakes)}, {', '.join(sorted({event.tls_version for event in handshakes})) or 'none'}",
        "time": f"{time.monotonic() - begin_time:.1f} s",
    })
    _expect("pages served", len(served), pages)
    _expect("pictures imported", len(imported), faces)
    _expect("reports", len(reports), pages)
    _expect("faces reported as imported", _reported(reports), faces)
    _expect("page starts reported", [report["startIndex"] for report in reports], list(range(0, faces, PAGE_SIZE)))


def white_list_clear(camera: Camera, show: Display) -> None:
    show.heading("whiteListClear: the face library clears its lists and gets the configured ones back")
    _command(camera, show, "whiteListClear", {"cameraCode": "C1"})
    names = [fields["ListName"] for fields in camera.faces.applied]
    _expect("face lists set", names, [element["FaceListName"] for element in camera.faces.lists])


def face_not_hit_down(camera: Camera, show: Display) -> None:
    show.heading("faceNotHitDown: a document goes into the ring buffer that the camera's other processes read")
    _command(camera, show, "faceNotHitDown", _DOCUMENT)
    records = camera.read_ring_buffer()
    show.line("demo", f"ringbuf_cat {RING_BUFFER}, another process, reads:")
    show.line("demo", "\n".join(records) or "nothing")
    _expect("records in the ring buffer", [_document(record) for record in records], [_DOCUMENT])


def metadata(camera: Camera, show: Display) -> None:
    show.heading("metadata: the service is a subscriber of the event cache")
    _expect("subscriptions", len(camera.events.subscriptions), 1)
    record: bytes = camera.events.subscriptions[0]
    show.dump("events", "the record that the service wrote when it started, "
              f"{len(record)} bytes, from the 65th on zero:", record[:64])
    _expect("bytes after the names that are not zero", camera.events.subscriptions[0][64:].strip(b"\0"), b"")
    camera.events.publish(_METADATA)
    packet: bytes = camera.journal.find("events", "notified")[-1].data["data"]
    show.line("events", f"published {json.dumps(_METADATA)}")
    show.line("events", str(describe_notification(packet)))
    time.sleep(_RECEIVE_TASK_PAUSE * 1.5)  # pause: long enough to see that nothing is read
    _expect("notification still unread", camera.events.unread(), True)
    show.line("demo", f"{_RECEIVE_TASK_PAUSE * 1.5:g} s later the notification waits unread, as it should: the service "
                      "takes records only while a component observes them, and none does yet.")


def _command(camera: Camera, show: Display, name: str, info: object) -> None:
    show.line("client", f"sends {name}: {json.dumps(info, ensure_ascii=False)}")
    _expect(f"status of the reply to {name}", camera.client.command(name, info).status, 200)


def _wait_for_end(camera: Camera, begin: int, timeout: float) -> None:
    try:
        event = camera.wait_download(timeout, begin)
    except TimeoutError as error:
        raise Unexpected(f"the download did not end: {error}") from error
    if event.kind == "ended":
        raise Unexpected(f"the service ended during the download, with code {event.exit_code}")


def _reported(reports: list[dict[str, list[dict[str, int]]]]) -> int:
    return sum(element["importStatus"] == IMPORTED for report in reports for element in report["ImportInfo"])


def _document(line: str) -> object:
    try:
        return json.loads(line)
    except ValueError:
        return line


def _expect(what: str, seen: object, expected: object) -> None:
    if seen != expected:
        raise Unexpected(f"{what}: {seen!r}, expected {expected!r}")


def _run(arguments: argparse.Namespace, show: Display) -> None:
    show.console.print(f"The service is {build_folder()}/bin/protocol_process, unchanged, in a sandbox of its own.")
    camera = Camera(start=False, recording=arguments.record, bodies=not arguments.no_bodies)
    show.follow(camera.journal)
    with show, camera:
        try:
            _tour(camera, show, [arguments.scene] if arguments.scene else _SCENES, arguments.faces)
        except (Unexpected, TimeoutError):
            if not arguments.verbose:
                show.heading("The last lines of the service's log:")
                show.console.print("\n".join(record.text for record in camera.service.log[-20:]))
            raise


def _tour(camera: Camera, show: Display, names: Sequence[str], faces: int) -> None:
    camera.start_service()
    camera.wait_until(lambda: camera.itgt.requests(1037) and camera.events.subscriptions)
    scenes = {"whiteListDown": lambda: white_list_down(camera, show, faces),
              "whiteListClear": lambda: white_list_clear(camera, show),
              "faceNotHitDown": lambda: face_not_hit_down(camera, show),
              "metadata": lambda: metadata(camera, show)}
    for name in names:
        scenes[name]()
    show.heading("The end")
    camera.service.stop()
    _expect("exit code of the service after SIGTERM", camera.service.exit_code, 0)


def _arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="demo", description="Runs the service in a simulated camera and shows what "
                                     "happens. Without a command: a tour of all of them. Exit code: 0 when everything "
                                     "came out as it should, 1 when not, 2 for wrong arguments.")
    parser.add_argument("scene", nargs="?", metavar="command", choices=_SCENES,
                        help=", ".join(_SCENES))
    parser.add_argument("--faces", type=int, default=75, metavar="N", help="faces to download (75)")
    parser.add_argument("--verbose", action="store_true", help="show the service's log and every message, decoded")
    parser.add_argument("--record", type=Path, metavar="FILE", help="write everything that passes into a file")
    parser.add_argument("--no-bodies", action="store_true", help="with --record: leave pages and pictures out")
    arguments = parser.parse_args()
    if not 0 <= arguments.faces <= 10_000:
        parser.error("--faces takes a number from 0 to 10000")
    if arguments.no_bodies and not arguments.record:
        parser.error("--no-bodies is of no use without --record FILE")
    return arguments


def main() -> int:
    arguments = _arguments()
    show = Display(arguments.verbose)
    try:
        with stoppable():
            _run(arguments, show)
    except (KeyboardInterrupt, Stopped):
        return STOPPED
    except BrokenPipeError:
        return OUTPUT_CLOSED
    except (Unexpected, CameraError, OSError) as error:
        show.console.print(f"\nThe demonstration failed: {error}", style="bold red")
        if isinstance(error, (Unexpected, TimeoutError)):
            show.console.print("Run it again with --verbose to see the service's log and every message.")
        return 1
    show.console.print("Everything came out as it should.", style="bold green")
    if arguments.record:
        show.console.print(f"Recorded in {arguments.record}; simulator/camsim trace explains it.")
    return 0


if __name__ == "__main__":
    complete_streams()
    sys.exit(flushed(main(), "demo"))
