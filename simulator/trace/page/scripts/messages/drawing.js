// How things are drawn: elements, lanes, arrows and their labels.

const SVG = "http://www.w3.org/2000/svg";
const narrow = matchMedia("(max-width: 760px)");

// A run that goes on may use every lane; of one that is over, those that it used are known.
const lanes = Object.keys(NAMES).filter((name) => run.live || name === "service" ||
  run.batch.items.some((item) => item.from === name || item.to === name));
const at = (name) => `${(100 * (Math.max(lanes.indexOf(name), 0) + 0.5)) / lanes.length}%`;

function make(tag, className = "", ...children) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  element.append(...children);
  return element;
}

function makeButton(className, click, ...children) {
  const button = make("button", className, ...children);
  button.type = "button";
  button.addEventListener("click", click);
  return button;
}

function draw(tag, attributes, ...children) {
  const element = document.createElementNS(SVG, tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  element.append(...children);
  return element;
}

const seconds = (value) => value.toFixed(3);
const duration = (value) => value >= 1 ? `${value.toFixed(2)} s` : `${(value * 1000).toFixed(value < 0.01 ? 1 : 0)} ms`;
const count = (number, one, many = one + "s") => `${number.toLocaleString("en")} ${number === 1 ? one : many}`;

// The clock on the wall when an item happened, UTC.
function wallTime(item) {
  const time = new Date(Date.parse(run.began) + item.time * 1000);
  return isNaN(time) ? "" : `${time.toISOString().slice(11, 23)} UTC`;
}

// A link to the place of an item.
function link(item, ...children) {
  const element = make("a", "", ...children);
  element.setAttribute("href", `#${placeOf(item)}`);
  return element;
}

const placeOf = (item) => `message-${item.number}`;

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
const short = (title) => title.replace(/^(\d+ CMD_\w+) (request|reply)$/, "$1");

function label(item) {
  const element = make("span", "label", make("b", "", highlighted(short(item.title))));
  if (!item.to) element.classList.add(`of-${item.from}`);
  if (item.fault && item.to) element.append(make("i", "fault", `fault: ${item.fault}`));
  if (item.answers) element.append(make("i", "after", `after ${duration(item.after)}`));
  if (unanswered(item)) element.append(make("i", "fault", "no answer"));
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

// Whether it asks for an answer that never came: what it belongs to is over.
const unanswered = (item) => item.asks && !answers.has(item.number) && chapters[item.chapter].over;

const spoken = (item) => `${NAMES[item.from] ?? item.from}${item.to ? ` to ${NAMES[item.to] ?? item.to}` : ""}: ` +
  `${item.title} ${item.detail}`;
