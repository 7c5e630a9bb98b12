"""Every example in the documents for a platform's, a client's and a firmware's engineer does what they say."""

from __future__ import annotations

import re
import shutil
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest

from reader_documents import Reader, blocks, logged_in, matches, on_free_ports, transcript
from simulator import faults

ROOT = Path(__file__).resolve().parents[2]
DOCUMENTS = ("platform-engineer.md", "client-engineer.md", "firmware-engineer.md")


@pytest.fixture
def folder() -> Iterator[Path]:
    """Where the reader sits; short, because paths of sockets are."""
    path = Path(tempfile.mkdtemp(prefix="doc", dir="/tmp"))
    yield path
    shutil.rmtree(path)


def text_of(document: str) -> str:
    return (ROOT / "docs" / document).read_text(encoding="utf-8")


@pytest.mark.seconds(6)
@pytest.mark.parametrize("document", DOCUMENTS)
def test_every_example_does_what_the_document_shows(document: str, folder: Path) -> None:
    text = text_of(document)
    Reader(ROOT, logged_in(folder)).follow(on_free_ports(text) if document == "platform-engineer.md" else text)


@pytest.mark.parametrize("document", DOCUMENTS)
def test_every_fault_that_is_named_is_one(document: str) -> None:
    """In the prose: what the examples name, they run."""
    peers = "|".join({name.partition(".")[0] for name in faults.FAULTS})
    prose = re.sub(r"^```.*?^```$", "", text_of(document), flags=re.MULTILINE | re.DOTALL)
    named = set(re.findall(rf"`((?:{peers})\.[a-z0-9.-]+)", prose))
    files = {Path(block.file).name for block in blocks(text_of(document))}
    assert named - files <= set(faults.FAULTS)


def test_every_file_that_is_shown_is_named_before_and_explained_beside_the_examples() -> None:
    listed = (ROOT / "examples" / "README.md").read_text(encoding="utf-8")
    for document in DOCUMENTS:
        text = text_of(document)
        for block in blocks(text):
            if block.file:
                introduction = text.partition(f"```{block.kind} {block.file}\n")[0].rpartition("```")[2]
                assert f"`{block.file}`" in introduction, block.file
                assert Path(block.file).name in listed, block.file


@pytest.mark.parametrize("fenced", ["```\necho\n```\n", "```ruby\nputs\n```\n", "```json\n{}\n```\n",
                                    "  ```sh\n  true\n  ```\n", "```sh\ntrue\n"])
def test_a_block_that_nobody_would_run_is_an_error(fenced: str) -> None:
    with pytest.raises(ValueError):
        blocks(fenced)


@pytest.mark.parametrize("wrong", [
    "```sh\nfalse\n```\n", "```sh\nfalse | true\n```\n", "```console\n$ echo 1\n2\n```\n",
    "```console\n$ echo 1\n```\n",
    "```text a.txt\n1\n```\n", "```text a.txt\n1\n```\n```sh\ncat a.txt\n```\n",
    "```c a.c\nint main(void) { return 0; }\n```\n```console\n$ gcc a.c\n```\n"])
def test_an_example_that_does_something_else_is_seen(wrong: str, folder: Path) -> None:
    with pytest.raises(AssertionError):
        Reader(folder, {}).follow(wrong)


def test_commands_and_outputs_of_a_console() -> None:
    assert list(transcript("$ a \\\n  b\n1\n2\n$ c\n")) == [("a \\\n  b", "1\n2\n"), ("c", "")]
    assert matches("took ... s\n", "took 3 s\n") and not matches("took ... s\n", "took 3 ms\n")


def test_every_example_is_listed_with_a_line_that_names_it() -> None:
    folder = ROOT / "examples"
    text = (folder / "README.md").read_text(encoding="utf-8")
    rows = re.findall(r"^\| (`.*?`) \| .* \|(.*)\|$", text, re.MULTILINE)
    listed = {}
    for names, line in rows:
        first, *others = re.findall(r"`([^`]+)`", names)
        for name in (first, *(f"{first.rpartition('/')[0]}/{other}" for other in others)):
            listed[name] = line
            assert not line.strip() or name in line, name
    assert set(listed) == {str(path.relative_to(folder)) for path in folder.rglob("*.*")
                           if path.is_file() and path.name != "README.md"}
