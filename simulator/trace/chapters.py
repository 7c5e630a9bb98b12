"""The chapters of a recorded run, each with what happened in it."""

from __future__ import annotations

from simulator.trace.recording import Recording
from simulator.trace.story.chapter import Chapter
from simulator.trace.story.story import Story

__all__ = ["Chapter", "chapters_of"]


def chapters_of(recording: Recording) -> list[Chapter]:
    """The chapters of a run, in order; every explained entry is in one."""
    story = Story()
    for entry in recording.entries:
        told = story.take(entry)
        if told is not None:
            item, chapter = told
            chapter.items.append(item)
    for failure in story.failures:
        story.chapters[failure.chapter].failures.append(failure)
    return [chapter for chapter in story.chapters if chapter.items]
