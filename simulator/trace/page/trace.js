// Draws a recorded run out of the data in #run: JSON, compressed. Every text of the run comes from some process or other
// and is never read as markup: it goes into the page as text nodes alone.

async function unpacked(text) {
  const bytes = Uint8Array.from(atob(text), (character) => character.charCodeAt(0));
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("gzip"));
  return JSON.parse(await new Response(stream).text());
}

const run = await unpacked(document.getElementById("run").textContent);
const NAMES = run.names, SHORT_NAMES = run.short_names;
const LONG_GAP = 0.4;       // seconds without a message that are shown as a gap
const ROWS_AT_ONCE = 400;   // chapters are open from the start as long as they have no more rows together
const LOGS_SHOWN = 3;
const narrow = matchMedia("(max-width: 760px)");
const SVG = "http://www.w3.org/2000/svg";

const lanes = Object.keys(NAMES).filter((name) => name === "service" || run.chapters.some((chapter) =>
  chapter.items.some((item) => item.from === name || item.to === name)));
const at = (name) => `${(100 * (Math.max(lanes.indexOf(name), 0) + 0.5)) / lanes.length}%`;

function make(tag, className = "", ...children) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  element.append(...children);
  return element;
}

function draw(tag, attributes, ...children) {
  const element = document.createElementNS(SVG, tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  element.append(...children);
  return element;
}

const seconds = (value) => value.toFixed(3);
const duration = (value) => value >= 1 ? `${value.toFixed(2)} s` : `${Math.round(value * 1000)} ms`;
const count = (number, one, many = one + "s") => `${number.toLocaleString("en")} ${number === 1 ? one : many}`;

// ---- rows: a message with the log records that follow it at once, or log records alone

function rowsOf(chapter) {
  const rows = [];
  for (const item of chapter.items) {
    const last = rows[rows.length - 1];
    if (item.kind !== "log") rows.push({ item, logs: [], time: item.time, end: item.time });
    else if (last && item.time - last.end < LONG_GAP) {
      last.logs.push(item);
      last.end = item.time;
    } else rows.push({ item: null, logs: [item], time: item.time, end: item.time });
  }
  return rows;
}

// What two rows have in common when one repeats the other; null for what is never folded.
function likeness({ item }) {
  if (!item) return "log";
  return item.fault || item.kind === "fault" ? null : [item.kind, item.from, item.to, item.title].join("\n");
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

function lifelines(height) {
  return lanes.map((name) => draw("line", { class: "life", x1: at(name), x2: at(name), y1: 0, y2: height }));
}

function arrow(item) {
  const picture = draw("svg", { "aria-hidden": "true", class: `of-${item.from === "service" && item.to ? item.to : item.from}` },
    ...lifelines("100%"));
  const y = 33;
  if (!item.to) {
    picture.append(draw("circle", { class: "tip", cx: at(item.from), cy: 33, r: 3.5 }));
    return picture;
  }
  const right = lanes.indexOf(item.to) > lanes.indexOf(item.from);
  const tip = draw("svg", { x: at(item.to), y, overflow: "visible" },
    draw("path", { class: "tip", d: right ? "M-1 0 L-10 -4.5 L-10 4.5 Z" : "M1 0 L10 -4.5 L10 4.5 Z" }));
  picture.append(draw("line", { class: "arrow", x1: at(item.from), x2: at(item.to), y1: y, y2: y }), tip,
    draw("circle", { class: "tip", cx: at(item.from), cy: y, r: 2.5 }));
  return picture;
}

// "7021 CMD_FACE_IMPORT_PROGRESS request" in a label, where the arrow shows which way it goes.
const short = (title) => title.replace(/^(\d+) CMD_(\w+) (request|reply)$/,
  (_, code, name) => `${code} ${name.toLowerCase().replaceAll("_", " ")}`);

function label(item) {
  const element = make("span", "label", make("b", "", highlighted(short(item.title))));
  if (!item.to) element.classList.add(`of-${item.from}`);
  if (item.fault && item.to) element.append(make("i", "fault", `fault: ${item.fault}`));
  if (item.detail) element.append(make("span", "", highlighted(item.detail)));
  const places = [item.from, item.to || item.from].map((name) => Math.max(lanes.indexOf(name), 0));
  const left = Math.min(...places), right = Math.max(...places);
  const percent = (place) => (100 * (place + 0.5)) / lanes.length;
  if (!item.to && percent(left) > 60) {
    element.style.right = `calc(${100 - percent(right)}% - 12px)`;
    element.style.maxWidth = `calc(${percent(right)}% + 12px)`;
  } else {
    element.style.left = `calc(${percent(left)}% ${item.to ? "+ 6px" : "- 12px"})`;
    element.style.maxWidth = `calc(${100 - percent(left)}% - 6px + var(--spare))`;
  }
  return element;
}

const spoken = (item) => `${NAMES[item.from] ?? item.from}${item.to ? ` to ${NAMES[item.to] ?? item.to}` : ""}: ` +
  `${item.title} ${item.detail}`;

function drawRow(row) {
  const { item } = row;
  const element = make("div", "row");
  const line = make("div", "line", make("span", "time", `${seconds(row.time)} s`));
  const message = make(item ? "button" : "div", "message");
  element.append(line);
  line.append(message, drawLogs(row.logs));
  if (!item) {
    element.classList.add("alone");
    message.append(draw("svg", { "aria-hidden": "true" }, ...lifelines("100%")));
    return element;
  }
  element.id = `line-${item.line}`;
  element.classList.add(`of-kind-${item.kind}`);
  element.classList.toggle("own", !item.to);
  element.classList.toggle("spacious", row.logs.length === 0);
  element.classList.toggle("file", item.kind === "file");
  element.classList.toggle("quiet", ["connection", "note"].includes(item.kind) && !item.fault);
  element.classList.toggle("faulty", Boolean(item.fault));
  message.type = "button";
  message.setAttribute("aria-expanded", "false");
  message.setAttribute("aria-label", spoken(item));
  message.append(arrow(item), label(item));
  message.addEventListener("click", () => {
    const open = message.getAttribute("aria-expanded") === "true";
    message.setAttribute("aria-expanded", String(!open));
    if (open) element.querySelector(".detail").remove();
    else element.append(drawDetail(item));
  });
  return element;
}

function drawLogs(logs) {
  const list = make("ul", "logs");
  const show = (whole) => {
    list.replaceChildren(...(whole ? logs : logs.slice(0, LOGS_SHOWN)).map((item) => {
      const level = item.title.split(" ", 1)[0];
      const line = make("li", level.toLowerCase(), highlighted(item.detail));
      line.title = `${seconds(item.time)} s  ${item.title}`;
      return line;
    }));
    list.classList.toggle("whole", whole);
    if (whole || logs.length <= LOGS_SHOWN) return;
    const more = make("button", "", `+ ${count(logs.length - LOGS_SHOWN, "record")}`);
    more.type = "button";
    more.addEventListener("click", () => show(true));
    list.append(make("li", "", more));
  };
  show(words.length > 0);
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
  const button = make("button", "more", `${count(times, "more time")}: ${[...what].join(", ") || "log"}, ${duration(last - first)}`);
  button.type = "button";
  button.addEventListener("click", () => button.replaceWith(...drawRows(rows, false)));
  return button;
}

function drawRows(rows, fold = true) {
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
    if (row.time - before >= LONG_GAP && !words.length) elements.push(gap(row.time - before));
    elements.push(drawRow(row));
    before = row.end;
  }
  return elements;
}

// ---- chapters

const chapters = run.chapters.map((chapter, number) => {
  const rows = rowsOf(chapter);
  const title = make("button", "", make("span", "", chapter.title), make("small", "",
    `${seconds(chapter.begin)} s, takes ${duration(chapter.end - chapter.begin)}, ${count(rows.length, "message")}`));
  const faults = chapter.items.filter((item) => item.kind === "fault").length;
  if (faults) title.append(make("small", "bad", count(faults, "fault")));
  title.type = "button";
  const body = make("div", "rows");
  const element = make("section", "chapter", make("h2", "", title), body);
  element.id = `chapter-${number}`;
  const entry = { chapter, rows, shown: rows, element, body, title, faults, open: false };
  title.addEventListener("click", () => setOpen(entry, !entry.open));
  return entry;
});

function setOpen(entry, open) {
  entry.open = open;
  entry.element.classList.toggle("open", open);
  entry.title.setAttribute("aria-expanded", String(open));
  entry.body.replaceChildren(...(open ? drawRows(entry.shown, !words.length) : []));
}

// Opens as many chapters as are drawn quickly, those with faults first; the others open at a click.
function openSome() {
  let left = ROWS_AT_ONCE;
  const wanted = new Set();
  for (const entry of [...chapters.filter((one) => one.faults), ...chapters]) {
    if (wanted.has(entry) || entry.shown.length > left) continue;
    wanted.add(entry);
    left -= entry.shown.length;
  }
  for (const entry of chapters) setOpen(entry, wanted.has(entry));
}

function search(text) {
  words = text.toLowerCase().split(/\s+/).filter(Boolean);
  for (const entry of chapters) {
    entry.shown = words.length ? entry.rows.filter(matches) : entry.rows;
    entry.element.hidden = entry.shown.length === 0;
  }
  openSome();
  const sum = (name) => chapters.reduce((total, entry) => total + entry[name].length, 0);
  document.getElementById("found").textContent = words.length ? `${sum("shown")} of ${sum("rows")}` : "";
}

// ---- the page around them

function showNumbers() {
  const items = run.chapters.flatMap((chapter) => chapter.items);
  const of = (...kinds) => items.filter((item) => kinds.includes(item.kind)).length;
  const pages = run.chapters.filter((chapter) => chapter.phases.length).length;
  const bytes = items.filter((item) => ["request", "response", "step"].includes(item.kind))
    .reduce((sum, item) => sum + item.bytes.size, 0);
  const numbers = [[duration(run.seconds), "recorded"], [of("datagram"), "datagrams"], [of("request"), "HTTPS requests"],
    [bytes >= 1e6 ? `${(bytes / 1e6).toFixed(1)} MB` : `${(bytes / 1e3).toFixed(1)} kB`, "over HTTPS"],
    [pages, "pages"], [run.chapters.reduce((sum, chapter) => sum + chapter.pictures, 0), "pictures"],
    [of("file"), "files"], [of("log"), "log records"], [of("fault"), "faults"]];
  for (const [number, name] of numbers) {
    const bad = name === "faults" && number > 0;
    const unit = number === 1 ? name.replace(/s$/, "") : name;
    document.getElementById("numbers").append(
      make("div", bad ? "number bad" : "number", make("b", "", number.toLocaleString("en")), make("span", "", unit)));
  }
  const began = new Date(run.began);
  const day = isNaN(began) ? "" : began.toLocaleString("en-GB", { dateStyle: "long", timeStyle: "medium", timeZone: "UTC" }) + " UTC";
  document.getElementById("about").textContent = [day, run.about.version && `version ${run.about.version}`, run.about.build && `build ${run.about.build}`,
    run.cut && "the run was killed: its end is missing"].filter(Boolean).join(" · ");
}

function showOverview() {
  const overview = document.getElementById("overview");
  const whole = Math.max(run.seconds, 0.001);
  const x = (time) => `${(100 * time) / whole}%`;
  const step = [0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1800, 3600, 7200, 21600, 86400]
    .find((size) => whole / size <= (narrow.matches ? 4 : 9)) ?? 86400;
  const ticks = [];
  for (let time = 0; time <= whole; time += step) ticks.push(time);
  const lines = () => ticks.map((time) => draw("line", { class: "grid", x1: x(time), x2: x(time), y1: 0, y2: 26 }));
  overview.append(make("div", "stage axis", make("span"), draw("svg", {}, ...ticks.map((time) =>
    draw("text", { x: x(time), y: 13, "text-anchor": time ? "middle" : "start" }, `${+time.toFixed(2)} s`))), make("span")));
  for (const entry of chapters) {
    const { chapter } = entry;
    const bar = (name, begin, end) => draw("rect", { class: name, x: x(begin), y: 6, height: 14, rx: 3, ry: 3,
      width: `max(2px, ${x(end - begin)})` }, draw("title", {}, `${name}: ${duration(end - begin)}`));
    const picture = draw("svg", { "aria-hidden": "true" }, ...lines());
    if (chapter.phases.length) chapter.phases.forEach(([name, begin, end]) => picture.append(bar(name, begin, end)));
    else picture.append(bar("other", chapter.begin, chapter.end));
    for (const item of chapter.items.filter((one) => one.kind === "fault")) {
      picture.append(draw("svg", { x: x(item.time), y: 13, overflow: "visible" },
        draw("path", { class: "mark", d: "M0 -8 L5 0 L0 8 L-5 0 Z" })));
    }
    for (const rect of picture.querySelectorAll("rect")) rect.style.width = rect.getAttribute("width");
    const button = make("button", chapter.phases.length ? "stage page" : "stage", make("span", "name", chapter.title),
      picture, make("span", "length", duration(chapter.end - chapter.begin)));
    button.type = "button";
    button.addEventListener("click", () => {
      if (!entry.open) setOpen(entry, true);
      entry.element.hidden = false;
      entry.element.scrollIntoView({ behavior: "smooth" });
    });
    overview.append(button);
  }
  const legend = { fetch: "fetch a page", import: "import wait", report: "report", other: "other", mark: "fault" };
  for (const [name, text] of Object.entries(legend)) {
    document.getElementById("legend").append(make("span", "", make("i", name), text));
  }
}

function showTools() {
  document.getElementById("processes").append(make("div", "lanes", ...lanes.map((name) =>
    make("span", `of-${name}`, (narrow.matches ? SHORT_NAMES : NAMES)[name]))));
  for (const name of ["log", "connections", "notes"]) {
    const button = make("button", "", name);
    button.type = "button";
    button.setAttribute("aria-pressed", "true");
    button.addEventListener("click", () => {
      const off = document.body.classList.toggle(`without-${name}`);
      button.setAttribute("aria-pressed", String(!off));
    });
    document.getElementById("switches").append(button);
  }
  const input = document.getElementById("search");
  let waiting = 0;
  input.addEventListener("input", () => {
    clearTimeout(waiting);
    waiting = setTimeout(() => search(input.value), 120);
  });
  addEventListener("keydown", (event) => {
    if (event.key === "/" && document.activeElement !== input) {
      event.preventDefault();
      input.focus();
    }
  });
}

function showTheme() {
  const dark = matchMedia("(prefers-color-scheme: dark)");
  const button = document.getElementById("theme");
  const choices = ["auto", "light", "dark"];
  let choice = "auto";
  const apply = () => {
    document.documentElement.dataset.theme = choice === "auto" ? (dark.matches ? "dark" : "light") : choice;
    button.textContent = { auto: "◐ auto", light: "☀ light", dark: "☾ dark" }[choice];
  };
  button.addEventListener("click", () => {
    choice = choices[(choices.indexOf(choice) + 1) % choices.length];
    apply();
  });
  dark.addEventListener("change", apply);
  apply();
}

showTheme();
showNumbers();
showTools();
showOverview();
document.getElementById("chapters").append(...chapters.map((entry) => entry.element));
openSome();
