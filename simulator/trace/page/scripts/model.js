// The run, as far as it is known: what is in #run, and, while it goes on, what comes after. Every text of it comes from some
// process or other and is never read as markup: it goes into the page as text nodes alone.

async function unpacked(text) {
  const bytes = Uint8Array.from(atob(text), (character) => character.charCodeAt(0));
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("gzip"));
  return JSON.parse(await new Response(stream).text());
}

const run = await unpacked(document.getElementById("run").textContent);
run.seconds = 0;            // how long it takes, or has taken so far
const NAMES = run.names, SHORT_NAMES = run.short_names;
const LONG_GAP = 0.4;       // seconds without a message that are shown as a gap
const items = new Map();    // by number
const answers = new Map();  // the answer, by the number of what was asked
const chapters = [];        // each with its items and the rows that they make
const failures = new Map(); // by number
const failing = new Set();  // numbers of items where a failure shows

// Adds what a batch tells; returns the numbers of the chapters that it changes.
function take(batch) {
  const changed = new Set();
  for (const told of batch.chapters ?? []) {
    chapters[told.number] ??= { items: [], rows: [] };
    Object.assign(chapters[told.number], told);
    changed.add(told.number);
  }
  for (const item of batch.items ?? []) {
    items.set(item.number, item);
    if (item.answers) answers.set(item.answers, item);
    chapters[item.chapter].items.push(item);
    addToRows(chapters[item.chapter].rows, item);
    changed.add(item.chapter);
  }
  for (const failure of batch.failures ?? []) {
    const before = failures.get(failure.number);
    if (before) changed.add(before.chapter);
    failures.set(failure.number, failure);
    changed.add(failure.chapter);
  }
  if (batch.failures?.length) {
    failing.clear();
    for (const failure of failures.values()) failing.add(failure.item);
  }
  run.seconds = Math.max(run.seconds, batch.seconds ?? 0);
  return changed;
}

// A row is a message with the log records that follow it at once, or log records alone.
function addToRows(rows, item) {
  const last = rows[rows.length - 1];
  if (item.kind !== "log") rows.push({ item, logs: [], time: item.time, end: item.time });
  else if (last && item.time - last.end < LONG_GAP) {
    last.logs.push(item);
    last.end = item.time;
  } else rows.push({ item: null, logs: [item], time: item.time, end: item.time });
}

const failuresOf = (chapter) => [...failures.values()].filter((failure) => failure.chapter === chapter.number);
