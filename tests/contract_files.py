"""The files in contracts/, and what is wrong with a document or a request according to them."""

from __future__ import annotations

import functools
import json
from pathlib import Path
from typing import Any

import jsonschema
import yaml

from simulator.messages.http import Request

FOLDER = Path(__file__).resolve().parents[1] / "contracts"


def openapi() -> dict[str, Any]:
    return dict(yaml.safe_load((FOLDER / "platform.openapi.yaml").read_text(encoding="utf-8")))


@functools.lru_cache(maxsize=None)
def validator(name: str) -> Any:
    """Of the schema NAME.schema.json."""
    return jsonschema.Draft202012Validator(json.loads((FOLDER / f"{name}.schema.json").read_text(encoding="utf-8")))


def complaints(name: str, document: Any) -> list[str]:
    return [f"{error.json_path}: {error.message}" for error in validator(name).iter_errors(document)]


@functools.lru_cache(maxsize=None)
def operations() -> dict[str, dict[str, Any]]:
    """The platform's operations by name."""
    return {post["operationId"]: post for post in (path["post"] for path in openapi()["paths"].values())}


def request_complaints(request: Request) -> list[str]:
    """What is wrong with one of the service's requests; its header says which one it wants to be, its path need not."""
    operation = operations()["reportPage" if request.header("Connection") == "Close" else "fetchPage"]
    found = [] if request.request_line.startswith("POST ") else [f"no POST: {request.request_line}"]
    found += [f"{parameter['name']}: {request.header(parameter['name'])}" for parameter in operation["parameters"]
              if request.header(parameter["name"]) != parameter["schema"]["const"]]
    (kind, body), = operation["requestBody"]["content"].items()
    if request.header("Content-Type") != kind:
        found.append(f"Content-Type: {request.header('Content-Type')}")
    # That texts are UTF-8 is the client's business.
    document = json.loads(request.body.decode("utf-8", "replace"))
    return found + complaints(body["schema"]["$ref"].removesuffix(".schema.json"), document)
