"""The camera's other processes and the remote platform, played around the unchanged service binary.

    with Camera() as camera:
        reply = camera.client.command("whiteListDown", camera.platform.task(faces=75))
        camera.wait_until(lambda: len(camera.platform.reports) == 3)
"""

from simulator.camera import Camera, build_folder
from simulator.errors import CameraError
from simulator.http import NEVER, Close, Request, Reset, Response, Send, Wait, trickle
from simulator.journal import Event, Journal
from simulator.sandbox import Sandbox
from simulator.service import LogRecord

__all__ = ["NEVER", "Camera", "CameraError", "Close", "Event", "Journal", "LogRecord", "Request", "Reset", "Response",
           "Sandbox", "Send", "Wait", "build_folder", "trickle"]
