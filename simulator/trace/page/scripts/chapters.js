// The chapters as they stand in the page: open or closed, and the one message that a link or a search leads to.

const ROWS_AT_ONCE = 400;   // chapters are open from the start as long as they have no more rows together
let target = null;          // the item that is marked

// Makes or renews the part of the page that shows a chapter.
function drawChapter(chapter) {
  if (!chapter.element) {
    chapter.heading = makeButton("", () => {
      chapter.chosen = true;
      setOpen(chapter, !chapter.open);
    });
    chapter.body = make("div", "rows");
    chapter.element = make("section", "chapter", make("h2", "", chapter.heading), chapter.body);
    chapter.element.id = `chapter-${chapter.number}`;
    document.getElementById("chapters").append(chapter.element);
  }
  const failed = failuresOf(chapter);
  chapter.heading.replaceChildren(make("span", "", chapter.title), make("small", "", `${seconds(chapter.begin)} s, takes ` +
    `${duration(chapter.end - chapter.begin)}, ${count(chapter.rows.length, "message")}`));
  if (failed.length) chapter.heading.append(make("small", "bad", count(failed.length, "failure")));
  showWanted(chapter);
}

function showWanted(chapter) {
  chapter.shown = wanted(chapter.rows);
  chapter.element.hidden = chapter.shown.length === 0;
}

function setOpen(chapter, open) {
  chapter.open = open;
  chapter.element.classList.toggle("open", open);
  chapter.heading.setAttribute("aria-expanded", String(open));
  chapter.body.replaceChildren(...(open ? drawRows(chapter.shown, !narrowed()) : []));
  if (target && open) document.getElementById(placeOf(target))?.classList.add("target");
}

// Opens as many chapters as are drawn quickly: those with failures first, then the newest of a run that goes on. What the
// reader opened or closed stays so. What is open already is drawn anew only when it shows something else.
function openSome(anew) {
  let left = ROWS_AT_ONCE;
  const opened = new Set();
  const inOrder = run.live ? [...chapters].reverse() : chapters;
  for (const chapter of [...inOrder.filter((one) => failuresOf(one).length), ...inOrder]) {
    if (opened.has(chapter) || chapter.shown.length > left) continue;
    opened.add(chapter);
    left -= chapter.shown.length;
  }
  for (const chapter of chapters) {
    const open = chapter.chosen && !narrowed() ? chapter.open : opened.has(chapter);
    if (anew && open || chapter.open !== open) setOpen(chapter, open);
  }
}

// Opens exactly this item, wherever it is, marks it and scrolls to it; `found`: to what was searched for in it.
function reveal(item, found = false) {
  const chapter = chapters[item.chapter];
  if (!chapter.shown.some((row) => row.item === item || row.logs.includes(item))) showAll();
  showKind(item.kind);
  const before = document.querySelector(".target");
  before?.classList.remove("target");
  if (found && before?.querySelector(".detail") && target !== item) unfold(before, target, false);
  target = item;
  if (!chapter.open) setOpen(chapter, true);
  if (!document.getElementById(placeOf(item))) chapter.body.replaceChildren(...drawRows(chapter.shown, false));
  const element = document.getElementById(placeOf(item));
  element.classList.add("target");
  if (item.kind !== "log") unfold(element, item, true);
  const mark = found && (element.querySelector(".detail mark") ?? element.querySelector("mark"));
  const scroll = () => (mark || element).scrollIntoView({ block: "center" });
  scroll();
  requestAnimationFrame(scroll);  // what came into view has its real height now, and moved what is below it
}

// Shows the item that the page's address names, when it is known.
function followAddress() {
  const item = items.get(Number(/^#message-(\d+)$/.exec(location.hash)?.[1]));
  if (item) reveal(item);
  return Boolean(item);
}
