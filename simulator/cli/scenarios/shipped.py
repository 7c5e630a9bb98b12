"""The scenarios that come with camsim, known by their names."""

from __future__ import annotations

from pathlib import Path

from simulator import faults
from simulator.errors import CameraError

# In a checkout and in the package alike, beside the folder of the simulator.
_FOLDER = Path(__file__).resolve().parents[3] / "tests" / "scenarios"


def names() -> list[str]:
    return sorted(path.stem for path in _FOLDER.glob("*.json"))


def file_of(word: str) -> Path:
    """The file that a word means: one of that name, else the scenario that is called so."""
    path = Path(word)
    if path.exists() or path.suffix == ".json" or len(path.parts) > 1:
        return path
    if word not in names():
        raise CameraError(f"there is no file {word}, and no scenario of that name comes with camsim "
                          "(`camsim run --list` names all)" + faults.suggestion(word, names()))
    return _FOLDER / f"{word}.json"
