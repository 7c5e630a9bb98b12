// Which items a reader wants to see: those with the words searched for, of some processes, or with a failure.

let words = [];
const wantedProcesses = new Set();
let onlyFailures = false;
let hits = [];    // numbers of the items that were found, while there are words
let current = -1; // which of them is shown

const narrowed = () => words.length > 0 || wantedProcesses.size > 0 || onlyFailures;

function highlighted(text) {
  const fragment = document.createDocumentFragment();
  const low = text.toLowerCase();
  let from = 0;
  while (words.length && low.length === text.length) {
    const found = words.map((word) => [low.indexOf(word, from), word.length]).filter(([start]) => start >= 0);
    if (!found.length) break;
    const [start, length] = found.reduce((one, other) => other[0] < one[0] ? other : one);
    fragment.append(text.slice(from, start), make("mark", "", text.slice(start, start + length)));
    from = start + length;
  }
  fragment.append(text.slice(from));
  return fragment;
}

function itemText(item) {
  item.found ??= [item.title, item.detail, item.text, item.fault, item.message, item.socket, NAMES[item.from], NAMES[item.to],
    ...item.fields.flatMap((part) => [part[0], part[3]])].join("\n").toLowerCase();
  return item.found;
}

const matches = (item) => words.every((word) => itemText(item).includes(word));
const failed = (item) => Boolean(item.fault) || failing.has(item.number);
// Whose doing an item is: of a message, the process at the service's other end.
const processesOf = (item) => item.to ? [item.from, item.to].filter((name) => name !== "service") : [item.from];
const concerns = (item) => wantedProcesses.size === 0 || processesOf(item).some((name) => wantedProcesses.has(name));

// The rows with what is wanted, and with nothing that only stands beside it.
function wanted(rows) {
  if (!narrowed()) return rows;
  const chosen = (item) => concerns(item) && (!onlyFailures || failed(item)) && matches(item);
  return rows.map((row) => {
    const item = row.item && chosen(row.item) ? row.item : null;
    const logs = row.logs.filter(chosen);
    return { item, logs, time: (item ?? logs[0] ?? row).time, end: row.end };
  }).filter((row) => row.item || row.logs.length);
}

function narrowDown() {
  for (const chapter of chapters) showWanted(chapter);
  const shown = chapters.flatMap((chapter) => chapter.shown.flatMap((row) => [row.item, ...row.logs].filter(Boolean)));
  hits = words.length ? shown.map((item) => item.number) : [];
  current = -1;
  openSome(true);
  document.getElementById("found").textContent = narrowed() ? `${shown.length} of ${items.size}` : "";
  if (hits.length) showHit(1);
}

// Opens the next thing that was found, or the one before.
function showHit(step) {
  if (!hits.length) return;
  current = (current + step + hits.length) % hits.length;
  document.getElementById("found").textContent = `${current + 1} of ${hits.length} found`;
  reveal(items.get(hits[current]), true);
}
