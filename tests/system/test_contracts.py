"""The schemas in contracts/ against the service: what is valid it takes, what it refuses is not valid.

Every test of a camera checks at its end that what the service wrote is valid, and its requests those of the OpenAPI
document.
"""

from __future__ import annotations

import json
from collections.abc import Callable
from typing import Any

import pytest

from contract_files import complaints, request_complaints
from simulator import Camera
from simulator.messages.http import Request
from simulator.peers.face_library import face_list
from support import download

_MOST = {"i32": 2**31 - 1, "i64": 2**63 - 1, "u64": 2**64 - 1}
_LEAST = {"i32": -2**31, "i64": -2**63, "u64": 0}


def numbers(kind: str) -> list[tuple[Any, str]]:
    """Values for a number: valid, wrong, or left to the service's library, which takes some in one release alone."""
    most, least = _MOST[kind], _LEAST[kind]
    return [(0, "valid"), (most, "valid"), (least, "valid"), ("7", "valid"), (1.0, "valid"), ("007", "valid"),
            (most + 1, "left"), (str(most + 1), "left"), (least - 1, "left"), ("", "wrong"), ("x", "wrong"),
            ("1.5", "wrong"), (None, "wrong"), ([], "wrong"), ({}, "wrong"),
            (str(most), "left"), ("+7", "left"), (True, "left"), (1.5, "left")]


TEXTS = [("x", "valid"), ("", "valid"), (7, "valid"), (-1.5, "valid"), (None, "wrong"), (True, "left"), ([], "left")]


def expect(name: str, cases: list[tuple[Any, str]], refuses: Callable[[Any], bool]) -> None:
    """The schema takes what is valid and nothing else; the service takes that, and refuses what is wrong."""
    seen = [(case, not complaints(name, case), refuses(case)) for case, _ in cases]
    assert {how for _, how in cases} == {"valid", "wrong", "left"}
    assert [(case, valid) for (case, valid, _), (_, how) in zip(seen, cases) if valid != (how == "valid")] == []
    assert [case for (case, _, refused), (_, how) in zip(seen, cases)
            if how != "left" and refused != (how == "wrong")] == []


# Arguments of whiteListDown.
TASK = {"cameraCode": "C", "taskID": "T", "totalNum": 0, "sqbh": "S", "datatime": "D", "securityCode": "K",
        "taskURL": "https://127.0.0.1:1/x", "taskResultURL": "https://127.0.0.1:1/y"}
URLS = [("https://127.0.0.1:1/x", "valid"), ("http://host", "valid"), ("https://[::1]:65535/a b/%20?%zz#x", "valid"),
        ("https://host:0/x", "wrong"), ("https://host:65536/", "wrong"), ("https://host:x/", "wrong"),
        ("https://host/%zz", "wrong"), ("ftp://host/x", "left"), ("HTTPS://u@host:/", "left")]
PATHS = [("/x", "valid"), ("", "valid"), ("?x", "valid")]
ONLY_PATHS = [(url, "wrong") for url, _ in PATHS] + [("host:1/x", "wrong"), ("https:///x", "wrong")]


def down(**changes: Any) -> dict[str, Any]:
    return {"taskName": "whiteListDown", "taskInfo": {**TASK, **changes}}


def commands() -> list[tuple[Any, str]]:
    strict = [("x", "valid"), ("", "valid"), (7, "wrong"), (None, "wrong"), (True, "wrong"), ([], "wrong")]
    cases: list[tuple[Any, str]] = []
    for name in ("cameraCode", "taskID", "sqbh", "datatime", "securityCode"):
        cases += [(down(**{name: value}), how) for value, how in strict]
    cases += [(down(taskURL=value), how) for value, how in URLS + ONLY_PATHS + [(7, "wrong")]]
    cases += [(down(taskResultURL=value), how) for value, how in URLS + PATHS + [(7, "wrong")]]
    for name in TASK:
        cases.append(({"taskName": "whiteListDown", "taskInfo": {key: TASK[key] for key in TASK if key != name}},
                      "wrong"))
    cases += [(down(totalNum=value), how) for value, how in [
        (0, "valid"), ("0", "valid"), ("000", "valid"), (4294967296, "wrong"), ("4294967296", "wrong"), (-1, "wrong"),
        ("-1", "wrong"), ("x", "wrong"), ("", "wrong"), ("7 ", "wrong"), ("1.0", "wrong"), (None, "wrong"),
        ([], "wrong"), (False, "left"), (0.5, "left"), (" 0", "left"), ("+0", "left")]]
    cases += [({"taskName": "whiteListClear", "taskInfo": {"cameraCode": value}}, how) for value, how in TEXTS]
    return cases + [
        ({"taskName": "whiteListClear", "taskInfo": {}}, "wrong"),
        ({"taskName": "faceNotHitDown", "taskInfo": {}, "more": 1}, "valid"),
        ({"taskName": "faceNotHitDown", "taskInfo": {"a": [None, {}]}}, "valid"),
        ({"taskName": "faceNotHitDown", "taskInfo": []}, "wrong"), ({"taskName": "faceNotHitDown"}, "wrong"),
        ({"taskInfo": {}}, "wrong"), ({"taskName": "facenothitdown", "taskInfo": {}}, "wrong"),
        ({"taskName": 7, "taskInfo": {}}, "wrong"), ({}, "wrong"), ([], "wrong"), (None, "wrong"), ("x", "wrong")]


def test_commands(camera: Camera) -> None:
    def refused(document: Any) -> bool:
        while (status := camera.client.wait_reply(
                camera.client.send_body(json.dumps(document).encode())).status) == 409:
            pass  # the download before is of no page, and ends by itself
        return status == 400
    expect("command", commands(), refused)


def configurations() -> list[tuple[Any, str]]:
    good = face_list(1, "n")
    kinds = {"ID": "u64", "OnControl": "i32", "Threshold": "i64", "FaceListType": "i32"}
    cases = [({**good, name: value}, how) for name, kind in kinds.items() for value, how in numbers(kind)]
    cases += [({**good, "FaceListName": value}, how) for value, how in [*TEXTS, ("x" * 65, "left")]]
    cases += [({key: good[key] for key in good if key != name}, "wrong") for name in good]
    cases += [({**good, "more": 1}, "valid"), (1, "wrong"), (None, "wrong")]
    return [({"FaceListsArry": [good, case]}, how) for case, how in cases] + [
        ({"FaceListsArry": []}, "valid"), ({"FaceListsArry": [], "more": 1}, "valid"),
        ({"FaceListsArry": None}, "wrong"), ({"FaceListsArry": {}}, "wrong"), ({}, "wrong"), ([], "wrong"),
        (None, "wrong")]


def test_face_list_configurations(camera: Camera) -> None:
    def refused(document: Any) -> bool:
        camera.faces.configuration = json.dumps(document).encode()
        return camera.client.command("whiteListClear", {"cameraCode": "C1"}).status == 400
    expect("face-list", configurations(), refused)


def states() -> list[tuple[Any, str]]:
    cases = [({"ID": "a", "RESULT_TYPE_E": value}, how) for value, how in numbers("i64")]
    cases += [({"ID": value, "RESULT_TYPE_E": 0}, how) for value, how in TEXTS]
    cases += [({"ID": "a"}, "wrong"), ({"RESULT_TYPE_E": 0}, "wrong"), ({}, "wrong"), (1, "wrong"), (None, "wrong"),
              ({"ID": "a", "RESULT_TYPE_E": 0, "more": 1}, "valid")]
    return [({"TaskResultArry": [case]}, how) for case, how in cases] + [
        ({"TaskResultArry": [], "more": 1}, "valid"), ({"TaskResultArry": None}, "wrong"),
        ({"TaskResultArry": {}}, "wrong"), ({}, "wrong"), ([], "wrong"), (None, "wrong")]


def test_import_states(camera: Camera) -> None:
    def refused(document: Any) -> bool:
        camera.itgt.on_state_file = lambda _: json.dumps(document).encode()
        before = len(camera.platform.reports)
        download(camera, 1)
        return len(camera.platform.reports) == before
    expect("import-state", states(), refused)


def test_documents_of_the_simulated_processes(camera: Camera) -> None:
    download(camera, 31)
    camera.client.command("whiteListClear", {"cameraCode": "C1"})
    names = {"faces": "face-list", "itgt": "import-state"}
    files = [event for event in camera.journal.find(kind="file")]
    assert [event.source for event in files] == ["itgt", "itgt", "faces"]
    bodies = [event.data["data"] for event in camera.journal.find("client", "sent")][1::2]
    assert len(bodies) == 2
    assert [complaints(names[event.source], json.loads(event.content)) for event in files] == [[]] * 3
    assert [complaints("command", json.loads(body)) for body in bodies] == [[]] * 2


REPORT = (b'POST /r HTTP/1.1\r\nContent-Type: application/json;charset=UTF-8\r\nConnection: Close\r\n\r\n'
          b'{"ImportInfo":[{"credentialNumber":"a","importStatus":0}],"cameraCode":"C","offset":1,"securityCode":"K",'
          b'"startIndex":30,"taskID":"T"}')
PAGE = (b'POST /r HTTP/1.1\r\nConnection: Keep-Alive\r\nContent-Type: application/json;charset=UTF-8\r\n\r\n'
        b'{"cameraCode":"C","taskID":"T","startIndex":30,"offset":30,"datatime":"D","securityCode":"K"}')


@pytest.mark.parametrize("raw, right, wrong", [
    (REPORT, b"POST", b"PUT"), (REPORT, b";charset=UTF-8", b""), (REPORT, b"Close", b"close"), (REPORT, b":0", b':"0"'),
    (REPORT, b'"a"', b"7"), (REPORT, b":30", b":31"), (REPORT, b':"C"', b":1"), (REPORT, b"taskID", b"TaskID"),
    (PAGE, b"POST", b"GET"), (PAGE, b"Keep-Alive", b"close"), (PAGE, b":30", b":31"), (PAGE, b':"D"', b":1"),
    (PAGE, b"taskID", b"task")])
def test_a_wrong_request_is_seen(raw: bytes, right: bytes, wrong: bytes) -> None:
    def wrong_with(changed: bytes) -> list[str]:
        return request_complaints(Request(changed, 1, 8443, "TLSv1.2", "", 0.0))
    assert wrong_with(raw) == []
    assert right in raw and wrong_with(raw.replace(right, wrong))
