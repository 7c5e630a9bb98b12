"""Checks of the answer to a page request, as HTTP: the first page, asked for as a camera asks."""

from __future__ import annotations

from collections.abc import Callable

from simulator.messages.wire import PAGE_SIZE
from simulator.peers.real.asking import GRANTED, LARGEST_BODY, Exchange, ask, page_request
from simulator.platform_check.answer import (LONGEST_NAME, LONGEST_REASON, LONGEST_VALUE, MOST_FIELDS, MOST_INTERIM,
                                             Answer, read)
from simulator.platform_check.check import NEARLY, Check, Finding, Subject, failed, not_judged, passed, warning

_LINGER = 0.3  # seconds to look for bytes behind the end of the first answer
_LARGE = 32 << 20  # bytes of a page, from which on it is told that a camera has little memory
# Which rule comes before which: who breaks one cannot be judged by those behind it.
_STAGES = (("tls",), ("answer-time",), ("http",), ("interim",), ("header-limits",), ("redirect", "status"),
           ("compression",), ("length", "chunks", "close", "page-size"), ("nul",))
_STAGE = {name: number for number, names in enumerate(_STAGES) for name in names}


def exchanged(subject: Subject, start: int, count: int) -> tuple[Exchange, Answer]:
    """The answer to a page request, asked once."""
    def make() -> tuple[Exchange, Answer]:
        exchange = ask(subject.address, page_request(subject.address, subject.task, start, count),
                       _LINGER if start == 0 else 0.0)
        answer = read(exchange)
        exchange.raw.clear()  # pages are large
        return exchange, answer
    return subject.once(("page", start, count), make)


def first_page(subject: Subject) -> tuple[Exchange, Answer]:
    return exchanged(subject, 0, min(PAGE_SIZE, subject.faces))


def known_fault(subject: Subject) -> str:
    """What is known to be wrong with the pages that a camera asks for, if they were asked for; else ""."""
    for start in range(0, subject.faces, PAGE_SIZE):
        exchange, answer = subject.known(("page", start, min(PAGE_SIZE, subject.faces - start))) or (None, None)
        if answer is not None and exchange is not None:
            if answer.wrong is not None or answer.status != 200:
                return str(answer.wrong or f"status {answer.status}")
            if exchange.longest > GRANTED:
                return f"an answer that took {exchange.longest:.1f} s"
    return ""


def _of_answer(name: str, demand: str, section: str, judge: Callable[[Answer], Finding], needs: tuple[str, ...],
               do: str = "") -> Check:
    """A check of the first page's answer: failed with `do` if it breaks this rule first, else as `judge` finds."""
    def look(subject: Subject) -> Finding:
        _, answer = first_page(subject)
        if answer.wrong is not None:
            if answer.wrong.check == name:
                return failed(str(answer.wrong), do)
            if _STAGE[answer.wrong.check] < _STAGE[name]:
                return not_judged(f"the answer could not be read so far: {answer.wrong}")
        return judge(answer)
    return Check(name, demand, section, look, needs)


def _answer_time(subject: Subject) -> Finding:
    exchange, answer = first_page(subject)
    do = "answer sooner, and without pauses: a camera waits 5 s for the first byte and for each further one"
    if exchange.first is None:
        closed = answer.wrong is not None and answer.wrong.check == "http"
        return not_judged(str(answer.wrong)) if closed else failed(str(answer.wrong), do)
    seen = f"first byte after {exchange.first:.3f} s"
    if exchange.longest > exchange.first:
        seen += f", longest pause {exchange.longest:.3f} s"
    if exchange.first > GRANTED or exchange.longest > GRANTED and answer.wrong is None:
        return failed(seen, do)
    return warning(seen, do) if exchange.first > GRANTED * NEARLY else passed(seen)


def _http(answer: Answer) -> Finding:
    status = answer.status or answer.interim[0]
    return passed(f"HTTP/1.1, {status} {answer.reason}".rstrip())


def _interim(answer: Answer) -> Finding:
    return passed(f"{len(answer.interim)} before the answer: {', '.join(map(str, answer.interim[:5]))}; skipped"
                  if answer.interim else "no interim answers")


def _header_limits(answer: Answer) -> Finding:
    longest = max((len(value) for _, value in answer.fields), default=0)
    return passed(f"header fields: {len(answer.fields)}; the longest value: {longest} bytes")


def _redirect(answer: Answer) -> Finding:
    if not 300 <= answer.status < 400:
        return passed("no redirect")
    place = ", ".join(answer.values("location")) or "nowhere"
    return failed(f"status {answer.status}, to {place}", "answer at the path of the URL itself: a camera follows no "
                  "redirect (look for a slash at the end, and for a redirect to another name)")


def _status(answer: Answer) -> Finding:
    if answer.status == 200:
        return passed("status 200")
    hint = {401: "; a camera logs in nowhere: know it by securityCode in the request's body",
            403: "; a camera logs in nowhere: know it by securityCode in the request's body",
            404: "; is the path of the URL right?", 405: "; allow POST",
            411: "; take the request's Content-Length", 413: "; allow bodies of 1 kB", 415: "; take application/json",
            400: "; does the test task exist? --set taskID=... names it"}.get(answer.status, "")
    return failed(f"status {answer.status} {answer.reason}".rstrip(), f"answer a page request with 200{hint}")


def _compression(answer: Answer) -> Finding:
    codings = [value for value in answer.values("content-encoding") if value.lower() != "identity"]
    return failed(f"Content-Encoding: {', '.join(codings)}", "send pages as they are: a camera asks for no compression "
                  "and undoes none") if codings else passed("not compressed")


def _length(answer: Answer) -> Finding:
    return passed({"length": f"Content-Length: {answer.announced}, and as many bytes came"}.get(
        answer.framing, "no Content-Length"))


def _chunks(answer: Answer) -> Finding:
    return passed(f"{answer.chunks} chunks, {len(answer.body):,} bytes, and the end" if answer.framing == "chunks" else
                  "not chunked")


def _close(answer: Answer) -> Finding:
    return passed(f"{len(answer.body):,} bytes, ended by close_notify" if answer.framing == "close" else
                  "the answer tells its own length")


def _page_size(answer: Answer) -> Finding:
    seen = f"{len(answer.body):,} bytes"
    return warning(seen, "send smaller pictures: a camera holds a page in memory while it comes"
                   ) if len(answer.body) > _LARGE else passed(seen)


def _nul(answer: Answer) -> Finding:
    position = answer.body.find(b"\0")
    return passed("no NUL byte") if position < 0 else failed(
        f"a NUL byte at position {position:,} of {len(answer.body):,}: a camera stores what stands before it",
        "send text (UTF-8) without NUL bytes, pictures in base64")


_COMPLETE = "What counts as complete"
_RESPONSE = "What the camera does with a response"
FRAMED = ("http", "interim", "header-limits", "redirect", "status", "compression", "length", "chunks", "close",
          "page-size")

CHECKS = (
    Check("answer-time", "the first byte within 5 s, and no pause of 5 s", "Connection", _answer_time, ("tls",)),
    _of_answer("http", "an HTTP/1.1 answer with a whole head", _COMPLETE, _http, ("tls",),
               "look into the server's log; speak HTTP/1.1 (not HTTP/2), each header field as \"Name: value\", and an "
               "empty line behind them"),
    _of_answer("interim", f"at most {MOST_INTERIM} interim answers (1xx), and then the answer", _RESPONSE, _interim,
               ("http",), "send the answer itself behind interim ones"),
    _of_answer("header-limits", f"at most {MOST_FIELDS} header fields, {LONGEST_NAME} bytes a name, {LONGEST_VALUE} a "
               f"value, {LONGEST_REASON} of reason phrase", _COMPLETE, _header_limits, ("http",),
               "send fewer and shorter header fields: cookies and security policies are of no use to a camera"),
    _of_answer("redirect", "no redirect", _RESPONSE, _redirect, ("header-limits",)),
    _of_answer("status", "status 200, and no other", _RESPONSE, _status, ("redirect",)),
    _of_answer("compression", "no Content-Encoding", "Connection", _compression, ("status",)),
    _of_answer("length", "as many bytes as Content-Length says, if it is there", _COMPLETE, _length, ("status",),
               "let Content-Length be the number of bytes, not of characters, of the body"),
    _of_answer("chunks", "chunks with their sizes, one of size 0 and an empty line, if Transfer-Encoding is there",
               _COMPLETE, _chunks, ("status",),
               "leave chunks to the web server, or send Content-Length in their place"),
    _of_answer("close", "without length and chunks: an end with close_notify", _COMPLETE, _close, ("status",),
               "send Content-Length, or chunks, or shut TLS down properly before the connection is closed"),
    _of_answer("page-size", f"at most {LARGEST_BODY >> 20} MiB a page; a warning from {_LARGE >> 20} MiB on", _RESPONSE,
               _page_size, ("status",), "send smaller pictures: 30 of them are a page"),
    _of_answer("nul", "no NUL byte in a page", _RESPONSE, _nul, FRAMED))
