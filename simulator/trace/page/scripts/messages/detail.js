// One message unfolded: what it is, its fields, its text and its bytes.

function drawDetail(item) {
  const panel = make("div", "detail", drawHead(item));
  if (item.fields.length) panel.append(drawFields(item));
  if (item.text) panel.append(make("div", "", make("h3", "", "Text"), make("pre", "", highlighted(item.text))));
  if (item.bytes.size) panel.append(drawBytes(item));
  panel.addEventListener("pointerover", (event) => light(panel, event.target.closest("[data-field]")?.dataset.field));
  return panel;
}

function drawHead(item) {
  const facts = [`at ${seconds(item.time)} s, ${wallTime(item)}`];
  if (item.line) facts.push(`line ${item.line} of the recording`);
  if (item.bytes.size) facts.push(count(item.bytes.size, "byte"));
  if (item.connection) facts.push(`connection ${item.connection}`);
  const head = make("p", "head", `${spoken(item)}`.slice(0, 300), make("br"), facts.join(", "), make("br"));
  if (item.message) head.append(highlighted(item.message), item.socket ? " on " : "", highlighted(item.socket), make("br"));
  const asked = items.get(item.answers), answer = answers.get(item.number);
  if (asked) head.append("answers ", link(asked, asked.title), ` after ${duration(item.after)}`, make("br"));
  if (answer) head.append("answered by ", link(answer, answer.title), ` after ${duration(answer.after)}`, make("br"));
  else if (unanswered(item)) head.append("never answered", make("br"));
  head.append(link(item, "link to this message"));
  return head;
}

// Shows which bytes a field has, and which field a byte belongs to.
function light(panel, field) {
  for (const element of panel.querySelectorAll(".lit")) element.classList.remove("lit");
  if (field === undefined) return;
  for (const element of panel.querySelectorAll(`[data-field="${field}"]`)) element.classList.add("lit");
}

function drawFields(item) {
  const head = make("tr", "", ...["field", "offset", "bytes", "value"].map((name) => make("th", "", name)));
  const rows = item.fields.map(([name, offset, width, value], number) => {
    const row = make("tr", "", ...[name, String(offset), String(width), value].map((text) => make("td", "", highlighted(text))));
    row.dataset.field = number;
    return row;
  });
  return make("div", "", make("h3", "", "Fields"), make("table", "", make("thead", "", head), make("tbody", "", ...rows)));
}

function drawBytes(item) {
  const wide = narrow.matches ? 8 : 16;
  const text = make("pre", "bytes");
  let next = 0;
  for (const [offset, hex] of item.bytes.parts) {
    if (offset > next) text.append(skipped(offset - next, item.bytes.cut));
    const bytes = hex.match(/../g).map((pair) => parseInt(pair, 16));
    for (let start = 0; start < bytes.length; start += wide) {
      text.append(bytesLine(item, offset + start, bytes.slice(start, start + wide), wide));
    }
    next = offset + bytes.length;
  }
  if (item.bytes.size > next) text.append(skipped(item.bytes.size - next, item.bytes.cut));
  return make("div", "dump", make("h3", "", "Bytes"), text);
}

function skipped(number, cut) {
  return make("span", "zero", `${" ".repeat(8)}${count(number, "byte")} ${cut ? "not shown" : "of zero"}\n`);
}

function bytesLine(item, offset, bytes, wide) {
  const line = make("span", "", make("span", "at", String(offset).padStart(7) + "  "));
  const characters = make("span", "at", " ");
  bytes.forEach((byte, position) => {
    const field = item.fields.findIndex(([, start, width]) => offset + position >= start && offset + position < start + width);
    const cell = make("span", byte ? "" : "zero", byte.toString(16).padStart(2, "0") + " ");
    if (field >= 0) {
      cell.dataset.field = field;
      cell.className = `f${field % 3}`;
    }
    line.append(cell);
    characters.append(byte > 31 && byte < 127 ? String.fromCharCode(byte) : "·");
  });
  line.append("   ".repeat(wide - bytes.length), characters, "\n");
  return line;
}
