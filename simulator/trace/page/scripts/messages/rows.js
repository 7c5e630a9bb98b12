// The rows of a chapter: messages, the log beside them, gaps between them; what repeats itself is folded.

const LOGS_SHOWN = 3;
const unfolded = new Set();  // numbers of the items whose details are open

// What two rows have in common when one repeats the other; null for what is never folded.
function likeness({ item }) {
  if (!item) return "log";
  return item.fault || item.kind === "fault" || failing.has(item.number) || unfolded.has(item.number) ? null
    : [item.kind, item.from, item.to, item.title].join("\n");
}

// Finds what repeats itself (a query and its answer, again and again): [first, length of one, times].
function repetitions(rows) {
  const keys = rows.map(likeness);
  const found = [];
  for (let start = 0; start < rows.length; start++) {
    for (const length of [1, 2, 3, 4]) {
      const same = (position) => keys[position] !== null && keys[position] === keys[position - length];
      let end = start + length;
      while (end < rows.length && same(end)) end++;
      const times = Math.floor((end - start) / length);
      if (times < 4 || keys.slice(start, start + length).includes(null)) continue;
      found.push([start, length, times]);
      start += length * times - 1;
      break;
    }
  }
  return found;
}

function drawRow(row) {
  const { item } = row;
  const element = make("div", "row");
  const time = make("span", "time", `${seconds(row.time)} s`);
  time.title = wallTime(row);
  const line = make("div", "line", time);
  const message = make(item ? "button" : "div", "message");
  element.append(line);
  line.append(message, drawLogs(row.logs));
  if (!item) {
    element.classList.add("alone");
    message.append(draw("svg", { "aria-hidden": "true" }, ...lifelines("100%")));
    return element;
  }
  element.id = placeOf(item);
  element.classList.add(`of-kind-${item.kind}`);
  element.classList.toggle("own", !item.to);
  element.classList.toggle("spacious", row.logs.length === 0);
  element.classList.toggle("file", item.kind === "file");
  element.classList.toggle("quiet", ["connection", "note"].includes(item.kind) && !item.fault);
  element.classList.toggle("faulty", Boolean(item.fault) || failing.has(item.number));
  message.type = "button";
  message.setAttribute("aria-label", spoken(item));
  message.append(arrow(item), label(item));
  message.addEventListener("click", () => unfold(element, item, !unfolded.has(item.number)));
  unfold(element, item, unfolded.has(item.number));
  return element;
}

// Shows or hides the details of the item whose row it is.
function unfold(element, item, open) {
  element.querySelector(".detail")?.remove();
  element.querySelector(".message").setAttribute("aria-expanded", String(open));
  if (open) element.append(drawDetail(item));
  if (open) unfolded.add(item.number);
  else unfolded.delete(item.number);
}

function drawLogs(logs) {
  const list = make("ul", "logs");
  const show = (whole) => {
    list.replaceChildren(...(whole ? logs : logs.slice(0, LOGS_SHOWN)).map((item) => {
      const level = item.title.split(" ", 1)[0];
      const line = make("li", level.toLowerCase(), highlighted(item.detail));
      line.classList.toggle("failing", failing.has(item.number));
      line.id = placeOf(item);
      line.title = `${seconds(item.time)} s, ${wallTime(item)}  ${item.title}`;
      return line;
    }));
    list.classList.toggle("whole", whole);
    if (whole || logs.length <= LOGS_SHOWN) return;
    list.append(make("li", "", makeButton("", () => show(true), `+ ${count(logs.length - LOGS_SHOWN, "record")}`)));
  };
  show(narrowed() || logs.slice(LOGS_SHOWN).some((item) => failing.has(item.number) || item === target));
  return list;
}

function gap(length) {
  const message = make("div", "message", draw("svg", { "aria-hidden": "true" }, ...lifelines("100%")),
    make("span", "", `${length.toFixed(2)} s`));
  return make("div", "row gap", make("div", "line", make("span", "time"), message));
}

function folded(rows, length, times) {
  const last = rows[rows.length - 1].time, first = rows[0].time;
  const what = new Set(rows.slice(0, length).filter((row) => row.item).map((row) => short(row.item.title)));
  const text = `${count(times, "more time")}: ${[...what].join(", ") || "log"}, ${duration(last - first)}`;
  const button = makeButton("more", () => button.replaceWith(...drawRows(rows, false)), text);
  return button;
}

function drawRows(rows, fold) {
  const elements = [];
  const repeated = fold ? repetitions(rows) : [];
  let before = rows.length ? rows[0].time : 0;
  for (let position = 0; position < rows.length; position++) {
    const repetition = repeated.find(([start, length]) => position === start + length);
    if (repetition) {
      const [, length, times] = repetition;
      const hidden = length * (times - 2);
      elements.push(folded(rows.slice(position, position + hidden), length, times - 2));
      position += hidden;
      before = rows[position - 1].end;
    }
    const row = rows[position];
    if (row.time - before >= LONG_GAP && !narrowed()) elements.push(gap(row.time - before));
    elements.push(drawRow(row));
    before = row.end;
  }
  return elements;
}
