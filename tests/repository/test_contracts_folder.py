"""contracts/: each file is what it says it is, its README names it, and the documents' examples are valid by it."""

from __future__ import annotations

import json
import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import jsonschema
import pytest

from contract_files import FOLDER, complaints, openapi, operations

MESSAGES = (FOLDER.parent / "docs/messages.md").read_text(encoding="utf-8")
SCHEMAS = sorted(FOLDER.glob("*.schema.json"))
# What begins the examples of each document in docs/messages.md.
EXAMPLES = {"command": '{"taskName"', "reply": '{\n  "StatusCode"', "page-request": '{\n "cameraCode"',
            "report": '{"ImportInfo"', "import-state": '{"TaskResultArry"', "face-list": '{"FaceListsArry"'}
WRONG_REPLIES = ({}, [], {"StatusCode": "200"}, {"StatusCode": 500}, {"StatusCode": 200, "more": 1},
                 {"statusCode": 200})


def references(document: Any) -> Iterator[str]:
    if isinstance(document, dict):
        yield from [document["$ref"]] if isinstance(document.get("$ref"), str) else []
        document = list(document.values())
    for element in document if isinstance(document, list) else []:
        yield from references(element)


def test_readme_names_every_file() -> None:
    named = re.findall(r"^\| `([^`]+)` \|", (FOLDER / "README.md").read_text(encoding="utf-8"), re.MULTILINE)
    assert sorted(named) == sorted(path.name for path in FOLDER.iterdir() if path.name != "README.md")


@pytest.mark.parametrize("path", SCHEMAS, ids=lambda path: path.name)
def test_schemas_are_schemas(path: Path) -> None:
    schema = json.loads(path.read_text(encoding="utf-8"))
    jsonschema.validators.validator_for(schema, default=None).check_schema(schema)
    assert set(references(schema)) <= {f"#/{place}/{name}" for place in ("$defs", "definitions")
                                       for name in schema.get(place, {})}


@pytest.mark.parametrize("name", EXAMPLES)
def test_examples_of_the_document_are_valid(name: str) -> None:
    places = [match.start() for match in re.finditer(rf"^{re.escape(EXAMPLES[name])}", MESSAGES, re.MULTILINE)]
    assert places
    for place in places:
        assert complaints(name, json.JSONDecoder().raw_decode(MESSAGES, place)[0]) == []


def test_platform_document_has_the_parts_that_one_must_have() -> None:
    """A validator of OpenAPI is in no Debian release."""
    document = openapi()
    assert set(document) == {"openapi", "info", "servers", "paths"} and document["openapi"].startswith("3.1.")
    assert set(document["info"]) >= {"title", "version"}
    assert set(re.findall(r"{(\w+)}", document["servers"][0]["url"])) == set(document["servers"][0]["variables"])
    assert set(operations()) == {"fetchPage", "reportPage"}
    for operation in operations().values():
        assert operation["responses"] and all(answer["description"] for answer in operation["responses"].values())
        for parameter in operation["parameters"]:
            assert set(parameter) >= {"name", "in", "schema"}
    assert {reference for reference in references(document)} == {"page-request.schema.json", "report.schema.json"}


@pytest.mark.parametrize("name", ["fetchPage", "reportPage"])
def test_examples_of_the_platform_document_are_valid(name: str) -> None:
    (body,) = operations()[name]["requestBody"]["content"].values()
    assert complaints(body["schema"]["$ref"].removesuffix(".schema.json"), body["example"]) == []
    assert set(body["schema"]) == {"$ref"}


@pytest.mark.parametrize("reply", WRONG_REPLIES, ids=str)
def test_a_wrong_reply_is_not_valid(reply: Any) -> None:
    assert complaints("reply", reply)
