"""The metadata intake while nobody observes it: subscribed, and never read."""

from __future__ import annotations

import random
import signal

from simulator import Camera
from support import EVENT_CACHE, download, expect_working, start_download, texts, wait_end, wait_stopped

RECEIVE_TASK = "media_server/IPCService/ProtocolProcess/Public/Public_MetaDataRecvTask"


def test_published_records_stay_unread(camera: Camera) -> None:
    """Over more than two of the receive task's seconds, which two waits of a download take."""
    camera.wait_until(lambda: camera.events.subscriptions)
    for number in range(3):
        camera.events.publish({"Timestamp": number})
    camera.itgt.not_ready_answers = 2
    download(camera, 1)
    assert camera.events.unread()
    assert texts(camera, RECEIVE_TASK) == []
    assert len(texts(camera, EVENT_CACHE)) == 2


def test_garbage_from_the_publisher_does_no_harm(camera: Camera) -> None:
    camera.wait_until(lambda: camera.events.subscriptions)
    source = random.Random(2)
    for size in (1, 9, 10, 255, 256, 5000):
        camera.events.notify(source.randbytes(size))
    camera.events.publish(b"{", length=2**32 - 1)
    camera.events.publish([], descriptor_offset=65535)
    camera.itgt.not_ready_answers = 1
    download(camera, 1)
    assert len(camera.platform.reports) == 1
    assert texts(camera, RECEIVE_TASK) == []


def test_end_of_the_publisher_does_no_harm(camera: Camera) -> None:
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.stop()
    camera.itgt.not_ready_answers = 2
    download(camera, 1)
    expect_working(camera)
    assert texts(camera, RECEIVE_TASK) == []


def test_receive_task_does_not_spin(camera: Camera) -> None:
    """With nobody observing it wakes once a second: the idle process uses hardly any processor time."""
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.publish({"Timestamp": 1})
    expect_working(camera)
    before = processor_seconds(camera)
    camera.itgt.not_ready_answers = 2
    download(camera, 0)
    start_download(camera)
    wait_end(camera, since=len(camera.journal))
    assert processor_seconds(camera) - before < 1.0, "of more than 2 seconds"


def processor_seconds(camera: Camera) -> float:
    with open(f"/proc/{camera.service.pid}/stat", encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def test_stop_with_unread_records(camera: Camera) -> None:
    camera.wait_until(lambda: camera.events.subscriptions)
    camera.events.publish({"Timestamp": 1})
    assert wait_stopped(camera, signal.SIGTERM) == 0
