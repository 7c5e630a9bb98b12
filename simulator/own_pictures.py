"""A folder of the user's own pictures, as records of the platform's pages."""

from __future__ import annotations

from pathlib import Path

from simulator.errors import CameraError

_ENDINGS = (".jpg", ".jpeg")


def read_pictures(folder: Path) -> list[tuple[str, bytes]]:
    """Name without ending, and content, of each JPEG file of a folder, in the order of the names."""
    try:
        paths = sorted(path for path in folder.iterdir() if path.suffix.lower() in _ENDINGS and path.is_file())
        if not paths:
            raise CameraError(f"there is no picture in {folder}; it needs files that end in .jpg or .jpeg")
        return [(path.stem, path.read_bytes()) for path in paths]
    except OSError as error:
        raise CameraError(f"the pictures cannot be read: {error}; name a folder with .jpg files") from error
