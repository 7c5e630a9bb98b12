#!/usr/bin/python3
"""Runs clang-tidy on C++ sources, in parallel.

usage: tidy.py BUILD SOURCE...

BUILD is a configured build folder. A clean source is not checked again until its text, one of its headers, its compile
options or the settings change: BUILD/tidy has a file for each such state. Prints the findings and exits with 1 if there
are any.
"""

import hashlib
import json
import os
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path


def preprocess_commands(build: Path) -> dict[Path, tuple[list[str], str]]:
    """For each source that is compiled: the command that prints it with its headers and comments, and where."""
    commands = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        output = words.index("-o")
        words = [word for word in words[:output] + words[output + 2 :] if word != "-c"]
        commands[Path(entry["file"])] = ([*words, "-E", "-C"], entry["directory"])
    return commands


def state(source: Path, command: list[str], folder: str, settings: bytes) -> str:
    """A name for everything that clang-tidy's findings depend on."""
    text = subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, check=True).stdout
    return hashlib.sha256(b"\0".join([settings, str(source).encode(), " ".join(command).encode(), text])).hexdigest()


def tidy(source: Path, build: Path, command: list[str], folder: str, settings: bytes) -> bool:
    """Looks at one source; True when it is clean."""
    clean = build / "tidy" / state(source, command, folder, settings)
    if clean.exists():
        return True
    result = subprocess.run(["clang-tidy", "--quiet", "-p", build, source], capture_output=True, text=True, check=False)
    if result.returncode == 0:
        clean.touch()
        return True
    print(result.stdout, result.stderr, sep="", flush=True)
    return False


def main() -> int:
    build = Path(sys.argv[1]).resolve()
    sources = [Path(name).resolve() for name in sys.argv[2:]]
    (build / "tidy").mkdir(exist_ok=True)
    commands = preprocess_commands(build)
    strangers = [source for source in sources if source not in commands]
    for source in strangers:
        print(f"{source} is in no target of {build}")
    settings = b"".join(path.read_bytes() for path in sorted(Path().rglob(".clang-tidy")))
    settings += subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(lambda s: tidy(s, build, *commands[s], settings), set(sources) - set(strangers)))
    print(f"{len(results)} sources, {results.count(False)} with findings")
    return 0 if sources and all(results) and not strangers else 1


if __name__ == "__main__":
    sys.exit(main())
