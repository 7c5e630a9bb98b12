// Puts the page together.

function show(changed) {
  for (const number of [...changed].sort((one, other) => one - other)) {
    const chapter = chapters[number];
    const fresh = !chapter.element;
    drawChapter(chapter);
    if (!fresh && chapter.open) setOpen(chapter, true);
  }
  showNumbers();
  if (changed.size || chapters.some(goesOn)) showOverview();
  if (changed.size) showFailures();
}

showTheme();
showAbout();
showLegend();
showTools();
watchKeys();
show(take(run.batch));
openSome();
followAddress();
addEventListener("hashchange", followAddress);
