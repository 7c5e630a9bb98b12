"""The camera's other processes and the remote platform, simulated around the unchanged service binary.

    with Camera() as camera:
        reply = camera.client.command("whiteListDown", camera.platform.task(faces=75))
        camera.wait_until(lambda: len(camera.platform.reports) == 3)

What is named here is for tests and other programs; docs/architecture.md has the folders behind it.
"""

from simulator.camera import Camera, build_folder
from simulator.device.sandbox import Sandbox
from simulator.errors import CameraError
from simulator.journal import Event, Journal
from simulator.messages import wire
from simulator.messages.http import NEVER, Close, Request, Reset, Response, Send, Wait, trickle
from simulator.messages.log import LogRecord

__all__ = ["NEVER", "Camera", "CameraError", "Close", "Event", "Journal", "LogRecord", "Request", "Reset", "Response",
           "Sandbox", "Send", "Wait", "build_folder", "trickle", "wire"]
