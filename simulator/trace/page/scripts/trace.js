// Puts the page together.

function show(changed) {
  for (const number of [...changed].sort((one, other) => one - other)) {
    const chapter = chapters[number];
    drawChapter(chapter);
    const state = [chapter.items.length, chapter.over, ...failuresOf(chapter).map((failure) => failure.item)].join();
    if (chapter.open && chapter.state !== state) setOpen(chapter, true);
    chapter.state = state;
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
openSome(true);
followAddress();
addEventListener("hashchange", followAddress);
