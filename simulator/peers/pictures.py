"""Pictures of the platform's pages: made-up JPEG files, the same for the same number, or a folder of the user's own."""

from __future__ import annotations

import random
from pathlib import Path

from simulator.errors import CameraError

_COLUMNS, _ROWS = 16, 20  # blocks of 8 x 8 pixels

# Huffman codes of the DC coefficient's bit count (0 to 11), as a JPEG file lists them: codes per length, then symbols.
_DC_COUNTS = bytes([0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0])
_DC_CODES = ("00", "010", "011", "100", "101", "110", "1110", "11110", "111110", "1111110", "11111110", "111111110")
# One AC code, "0": end of block. Every block is of one grey.
_AC_COUNTS = bytes([1] + [0] * 15)
_AC_END = "0"
_ENDINGS = (".jpg", ".jpeg")


def picture(number: int, minimum: int = 20_000, maximum: int = 200_000) -> bytes:
    """The grey picture of face `number`, between `minimum` and `maximum` bytes long (at least about 700)."""
    source = random.Random(number)
    size = source.randint(minimum, maximum)
    head = b"\xff\xd8" + _segment(0xe0, b"JFIF\0\x01\x01\0\0\x01\0\x01\0\0")
    frame = (_segment(0xdb, b"\0" + bytes([8] * 64))
             + _segment(0xc0, bytes([8, 0, _ROWS * 8, 0, _COLUMNS * 8, 1, 1, 0x11, 0]))
             + _segment(0xc4, b"\x00" + _DC_COUNTS + bytes(range(12)))
             + _segment(0xc4, b"\x10" + _AC_COUNTS + b"\0")
             + _segment(0xda, b"\x01\x01\0\0\x3f\0"))
    body = frame + _scan(_face(source)) + b"\xff\xd9"
    return head + _padding(source, size - len(head) - len(body)) + body


def is_jpeg(data: bytes) -> bool:
    """True if `data` has the structure of a JPEG file: segments from the start marker to a scan, and the end marker."""
    if data[:2] != b"\xff\xd8" or data[-2:] != b"\xff\xd9":
        return False
    position = 2
    while position + 4 <= len(data) and data[position] == 0xff:
        if data[position + 1] == 0xda:
            return True
        position += 2 + int.from_bytes(data[position + 2:position + 4], "big")
    return False


def read_pictures(folder: Path) -> list[tuple[str, bytes]]:
    """Name without ending, and content, of each JPEG file of a folder, in the order of the names."""
    try:
        paths = sorted(path for path in folder.iterdir() if path.suffix.lower() in _ENDINGS and path.is_file())
        if not paths:
            raise CameraError(f"there is no picture in {folder}; it needs files that end in .jpg or .jpeg")
        return [(path.stem, path.read_bytes()) for path in paths]
    except OSError as error:
        raise CameraError(f"the pictures cannot be read: {error}; name a folder with .jpg files") from error


def _segment(marker: int, content: bytes) -> bytes:
    return bytes([0xff, marker]) + (len(content) + 2).to_bytes(2, "big") + content


def _padding(source: random.Random, size: int) -> bytes:
    """Comment segments of `size` bytes together."""
    segments = []
    while size >= 4:
        length = min(size, 65_000)
        segments.append(_segment(0xfe, source.randbytes(length - 4)))
        size -= length
    return b"".join(segments)


def _face(source: random.Random) -> list[int]:
    """Greys of the blocks, row by row: a head with hair, eyes and a mouth before a plain wall."""
    wall, skin, hair = source.randint(150, 230), source.randint(110, 200), source.randint(20, 100)
    width, height, hairline = source.uniform(4.5, 6.5), source.uniform(7.0, 9.0), source.randint(4, 7)
    features = {(8, 5), (8, 10)} | {(14, column) for column in range(6, source.randint(9, 11))}
    greys = []
    for row in range(_ROWS):
        for column in range(_COLUMNS):
            inside = ((column - 7.5) / width) ** 2 + ((row - 10) / height) ** 2 <= 1
            grey = 40 if (row, column) in features else hair if row < hairline else skin
            greys.append(grey + source.randint(-6, 6) if inside else wall)
    return greys


def _scan(greys: list[int]) -> bytes:
    bits, previous = [], 0
    for grey in greys:
        difference = grey - 128 - previous
        previous = grey - 128
        length = abs(difference).bit_length()
        bits.append(_DC_CODES[length])
        if length:
            value = difference if difference > 0 else difference + (1 << length) - 1
            bits.append(f"{value:0{length}b}")
        bits.append(_AC_END)
    text = "".join(bits)
    text += "1" * (-len(text) % 8)
    return int(text, 2).to_bytes(len(text) // 8, "big").replace(b"\xff", b"\xff\0")
