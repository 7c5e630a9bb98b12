"""Pages of at most 30 records, and the files they are written to."""

from __future__ import annotations

import stat

import pytest

from simulator import Camera, Response
from support import (DOWNLOAD, END, FOLDER, HTTP, LOOP, PAGE, TASK, count_text, download, expect_log, page_starts,
                     status_field, texts)

PICTURE_TASK = "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadPictureTask"

BODY = """{
 "cameraCode" : "C1",
 "taskID" : "T1",
 "startIndex" : %d,
 "offset" : %d,
 "datatime" : "D1",
 "securityCode" : "K1"
}"""


def page_requests(camera: Camera) -> list[bytes]:
    return [request.body for request in camera.platform.requests if request.target == camera.platform.task_path]


@pytest.mark.parametrize("total, pages", [
    (1, [(0, 1)]), (29, [(0, 29)]), (30, [(0, 30)]), (31, [(0, 30), (30, 1)]), (60, [(0, 30), (30, 30)]),
    (75, [(0, 30), (30, 30), (60, 15)])])
def test_total_is_asked_for_in_pages_of_30_with_this_body(camera: Camera, total: int,
                                                          pages: list[tuple[int, int]]) -> None:
    download(camera, total)
    assert page_requests(camera) == [(BODY % page).encode() for page in pages]
    assert sorted(path.name for path in camera.path(FOLDER).iterdir()) == sorted(f"white{start}" for start, _ in pages)


def test_strings_of_the_command_are_escaped_in_the_request(camera: Camera) -> None:
    download(camera, 1, cameraCode='a"b\\c', taskID="\n\t\x01", datatime="面/ü", securityCode="")
    body = page_requests(camera)[0].decode()
    assert body == ('{\n "cameraCode" : "a\\"b\\\\c",\n "taskID" : "\\n\\t\\u0001",\n "startIndex" : 0,\n'
                    ' "offset" : 1,\n "datatime" : "面\\/ü",\n "securityCode" : ""\n}')


def test_page_file_holds_the_answer_as_it_came(camera: Camera) -> None:
    answers = [b"no json, \xff\xfe bytes\r\n" * 1000, b"second"]
    camera.platform.script(camera.platform.task_path, *[Response(body=answer) for answer in answers])
    download(camera, 31)
    assert camera.path(PAGE).read_bytes() == answers[0]
    assert camera.path(f"{FOLDER}/white30").read_bytes() == answers[1]


def test_page_file_ends_before_the_first_nul_of_the_answer(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, Response(body=b"before\0after"))
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == b"before"


def test_empty_answer_gives_an_empty_file_that_itgt_is_told_of(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, Response(body=b""))
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == b""
    assert [message.request["ImportFileName"] for message in camera.itgt.requests(7020)] == ["white0"]


def test_large_pages_arrive_whole(camera: Camera) -> None:
    camera.platform.picture_sizes = (20_000, 200_000)
    download(camera, 75)
    for start, count in ((0, 30), (30, 30), (60, 15)):
        assert camera.path(f"{FOLDER}/white{start}").read_bytes() == camera.platform.page(start, count)
    assert [len(page.results) for page in camera.itgt.imports.values()] == [30, 30, 15]


def test_later_task_overwrites_its_page_files_and_leaves_the_others(camera: Camera) -> None:
    download(camera, 31)
    first = camera.path(PAGE).read_bytes()
    second = camera.path(f"{FOLDER}/white30").read_bytes()
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == camera.platform.page(0, 1) != first
    assert camera.path(f"{FOLDER}/white30").read_bytes() == second


def test_longer_file_of_an_earlier_run_is_cut(camera: Camera) -> None:
    camera.path(FOLDER).mkdir()
    camera.path(FOLDER).chmod(0o777)
    camera.path(PAGE).write_bytes(b"x" * 100_000)
    camera.path(PAGE).chmod(0o666)
    download(camera, 1)
    assert camera.path(PAGE).read_bytes() == camera.platform.page(0, 1)


def test_missing_folder_is_made(camera: Camera) -> None:
    download(camera, 1)
    mode = camera.path(FOLDER).stat().st_mode
    assert stat.S_ISDIR(mode)
    assert mode & 0o700 == 0o700
    assert stat.S_IMODE(mode) == 0o777 & ~int(status_field(camera, "Umask"), 8)


def expect_open_failure(camera: Camera) -> None:
    download(camera, 31)
    expect_log(camera, "INFO", DOWNLOAD, f" [Custom] download picture, open file {FOLDER}/white0 error.")
    expect_log(camera, "INFO", DOWNLOAD, " DownLoad Picture Fail.")
    expect_log(camera, "ERROR", PICTURE_TASK, "DownloadPictureProcess fail.")
    assert len(camera.platform.requests) == 1
    assert camera.itgt.requests(7020) == []


def test_only_the_last_folder_is_made(camera: Camera) -> None:
    camera.path("/tmp/mmcblk0/face_basic").rmdir()
    expect_open_failure(camera)
    camera.path("/tmp/mmcblk0/face_basic").mkdir()
    camera.path("/tmp/mmcblk0/face_basic").chmod(0o777)
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_folder_that_cannot_be_written_fails_the_page(camera: Camera) -> None:
    camera.path(FOLDER).mkdir()
    camera.path(FOLDER).chmod(0o555)
    expect_open_failure(camera)
    camera.path(FOLDER).chmod(0o777)
    download(camera, 1)
    assert len(camera.platform.reports) == 1


def test_folder_in_the_place_of_the_page_file_fails_the_page(camera: Camera) -> None:
    camera.path(PAGE).mkdir(parents=True)
    expect_open_failure(camera)


def test_file_in_the_place_of_the_folder_fails_the_page(camera: Camera) -> None:
    camera.path(FOLDER).write_text("")
    expect_open_failure(camera)


@pytest.mark.parametrize("status", [400, 403, 404, 418, 500, 503, 599, 201, 204, 302])
def test_page_that_is_not_answered_200_ends_the_task_after_the_pages_before_it(camera: Camera, status: int) -> None:
    platform = camera.platform
    platform.on_request = lambda request, default: (
        Response(status) if request.target == platform.task_path and request.json()["startIndex"] == 30 else default())
    download(camera, 75)
    assert [request.json()["startIndex"] for request in platform.requests] == [0, 0, 30]
    assert [request.json()["startIndex"] for request in platform.reports] == [0]
    expect_log(camera, "INFO", HTTP, f"Http Status ${status}")
    expect_log(camera, "INFO", DOWNLOAD, f"DownloadPictureProcess Status:{status}")
    assert not [text for text in texts(camera) if text.startswith("SendMsgAndRecvResponse err")]
    expect_log(camera, "INFO", DOWNLOAD, "[Custom] download picture, response error.")
    expect_log(camera, "INFO", DOWNLOAD, " DownLoad Picture Fail.")
    expect_log(camera, "ERROR", PICTURE_TASK, "DownloadPictureProcess fail.")
    assert not camera.path(f"{FOLDER}/white30").exists()
    assert [message.request["ImportFileName"] for message in camera.itgt.requests(7020)] == ["white0"]


def test_pages_follow_each_other_after_the_report_of_the_one_before(camera: Camera) -> None:
    download(camera, 61)
    order = [(request.json()["startIndex"], request.target == camera.platform.result_path)
             for request in camera.platform.requests]
    assert order == [(0, False), (0, True), (30, False), (30, True), (60, False), (60, True)]
    commands = [message.command for message in camera.itgt.received]
    assert commands == [1037] + [7020, 7021, 7031] * 3


def test_one_page_is_logged_in_this_order(camera: Camera) -> None:
    download(camera, 1, datatime="D9")
    result = ('{"ImportInfo":[{"credentialNumber":"110101196001010000","importStatus":0}],"cameraCode":"C1",'
              '"datatime":"2024-05-17 08:30:00","offset":1,"securityCode":"K1","startIndex":0,"taskID":"T1"}')
    request = BODY.replace("D1", "D9") % (0, 1)
    wanted = [
        (PICTURE_TASK, "DownloadPictureTask runTask"),
        (DOWNLOAD, " DownLoad Picture begin D9."),
        (DOWNLOAD, " RegisterProcObj::SendSysObj, ContentData:" + request.replace("\n", "\\n")),
        (HTTP, "------------------------------"), (HTTP, "Http Param:"), (HTTP, "Http Server IP: 127.0.0.1"),
        (HTTP, f"Http Server Port: {camera.platform.port}"), (HTTP, "Http Method:POST "),
        (HTTP, f"Http URI:{camera.platform.task_path} "), (HTTP, "------------------------------"),
        (HTTP, "Http Status $200"), (DOWNLOAD, "DownloadPictureProcess Status:200"), (DOWNLOAD, " startIndex 0 "),
        (DOWNLOAD, f" Fullfilename {FOLDER}/white0"), (DOWNLOAD, "Before recive msg from itgt"),
        (DOWNLOAD, "after recive msg from itgt"), (DOWNLOAD, "taskID is 4300000001"),
        (DOWNLOAD, " Notify ITGT result:0"), (DOWNLOAD, " DownLoad Picture Success."),
        (DOWNLOAD, "Wait for ITGT message "), (DOWNLOAD, "Task ID is 4300000001"),
        (DOWNLOAD, "Current process is 1 / 1 "),
        (DOWNLOAD, "picTaskResult Update TIME IS 2024-05-17 08:30:00"),
        (DOWNLOAD, "Finish Task  startIndex 0  offset 1"), (DOWNLOAD, "@@@picTaskResult Update  " + result),
        (DOWNLOAD, "response status 200 ,picTaskResult OK responselen 15")]
    lines = [record for record in camera.service.log if record.path in (PICTURE_TASK, DOWNLOAD, HTTP)]
    assert [(record.path, record.text) for record in lines] == wanted
    assert {record.level for record in lines} == {"INFO"}


def test_hundred_pages(camera: Camera) -> None:
    camera.platform.script(camera.platform.task_path, *[Response(body=b'{"records":[]}')] * 100)
    download(camera, 2999, timeout=60)
    assert [request.json()["startIndex"] for request in camera.platform.reports] == page_starts(2999)
    assert camera.platform.reports[-1].json()["offset"] == 29
    assert count_text(camera, " DownLoad Picture Success.") == 100
    assert texts(camera, TASK)[-1] == END
    assert count_text(camera, "GetJsonMsgInfo err:.") == 0
    assert len(texts(camera, LOOP)) < 20
