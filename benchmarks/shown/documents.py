"""The parts of documents that are made of measured figures: between two marks, written anew with each run."""

from __future__ import annotations

from benchmarks.comparison.results import Results
from benchmarks.shown.story import CHAPTERS, FLEET, Chapter, Figures

BEGIN, END = "<!-- figures -->\n", "<!-- end of figures -->\n"
# The documents, from the root, and the chapters that each has.
DOCUMENTS = {"benchmarks/README.md": [chapter for chapter in CHAPTERS if chapter is not FLEET],
             "docs/fleet.md": [FLEET]}


def written(text: str, path: str, results: Results) -> str:
    """The document with the figures of a run between its marks."""
    before, begin, rest = text.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not (begin and end):
        raise ValueError(f"{path} has no place for figures")
    figures = Figures(results)
    chapters = [_chapter(chapter, figures, results) for chapter in DOCUMENTS[path]]
    return f"{before}{BEGIN}\n{''.join(chapters)}{END}{after}"


def _chapter(chapter: Chapter, figures: Figures, results: Results) -> str:
    sentences = [text for text in map(figures.sentence, chapter.sentences) if text is not None]
    missed = "".join(f"- {text}\n" for text in chapter.missed(results))
    if not sentences and not missed:
        return ""
    lines = "\n".join(sentences)
    return f"**{chapter.title}.** {lines}\n\n" + (f"{missed}\n" if missed else "")
