"""The program in docs/camera.md that shows whether a service answers."""

from pathlib import Path

from simulator import Camera

_DOCUMENT = Path(__file__).resolve().parents[2] / "docs" / "camera.md"


def test_the_documents_program_sees_that_the_service_answers() -> None:
    program = _DOCUMENT.read_text().partition("python3 - <<'END'\n")[2].partition("END\n```")[0]
    with Camera(client=False) as camera:
        seen = camera.sandbox.run(["/usr/bin/python3", "-c", program])
    assert (seen.stdout, seen.stderr) == (b"b'{\\n  \"StatusCode\" : 200\\n}'\n", b"")
