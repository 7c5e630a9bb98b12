"""Reads the init unit of the service."""

from __future__ import annotations

from pathlib import Path

from simulator.errors import CameraError

# In this repository, or where its package puts it.
_PLACES = (Path(__file__).resolve().parents[2] / "packaging" / "camgate.service",
           Path("/lib/systemd/system/camgate.service"))
UNIT = next((place for place in _PLACES if place.exists()), _PLACES[0])


def service_settings(unit: Path = UNIT) -> dict[str, list[str]]:
    """The words of each setting in the section [Service], in order; a setting given again goes on with its words.

    A first word that begins with "~" is kept as it is: it turns the meaning of all words of its line.
    """
    try:
        lines = unit.read_text().splitlines()
    except OSError as error:
        raise CameraError(f"the init unit, which says what the service may do, cannot be read: {error}") from error
    settings: dict[str, list[str]] = {}
    section = ""
    for line in lines:
        if line.startswith("["):
            section = line
        elif section == "[Service]" and line and not line.startswith("#"):
            name, _, value = line.partition("=")
            settings.setdefault(name, []).append(value)
    return settings
