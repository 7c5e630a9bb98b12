// The top of the page: what run it is, what failed in it, and its time line.

function showAbout() {
  const began = new Date(run.began);
  const day = isNaN(began) ? "" : began.toLocaleString("en-GB", { dateStyle: "long", timeStyle: "medium", timeZone: "UTC" }) + " UTC";
  document.getElementById("about").textContent = [day, run.about.version && `version ${run.about.version}`,
    run.about.build && `build ${run.about.build}`, run.cut && "the run was killed: its end is missing"].filter(Boolean).join(" · ");
}

function showNumbers() {
  const all = [...items.values()];
  const of = (...kinds) => all.filter((item) => kinds.includes(item.kind)).length;
  const bytes = all.filter((item) => ["request", "response", "step"].includes(item.kind))
    .reduce((sum, item) => sum + item.bytes.size, 0);
  const numbers = [[duration(run.seconds), "recorded"], [of("datagram"), "datagrams"], [of("request"), "HTTPS requests"],
    [bytes >= 1e6 ? `${(bytes / 1e6).toFixed(1)} MB` : `${(bytes / 1e3).toFixed(1)} kB`, "over HTTPS"],
    [chapters.filter((chapter) => chapter.phases.length).length, "pages"],
    [chapters.reduce((sum, chapter) => sum + chapter.pictures, 0), "pictures"],
    [of("file"), "files"], [of("log"), "log records"],
    [[...failures.values()].filter((failure) => failure.failed).length, "failures"]];
  document.getElementById("numbers").replaceChildren(...numbers.map(([number, name]) => {
    const bad = name === "failures" && number > 0;
    const unit = number === 1 ? name.replace(/s$/, "") : name;
    return make("div", bad ? "number bad" : "number", make("b", "", number.toLocaleString("en")), make("span", "", unit));
  }));
}

// Each failure with its reason, whether somebody made it happen, and a link to its place.
function showFailures() {
  const list = document.getElementById("failures");
  list.parentElement.hidden = failures.size === 0;
  list.replaceChildren(...[...failures.values()].sort((one, other) => one.time - other.time).map((failure) => {
    const item = items.get(failure.item);
    const times = failure.times > 1 ? ` ${failure.times} times` : "";
    const origin = failure.fault ? `injected: ${failure.fault}${times}` : "not injected";
    const text = failure.failed ? failure.text : `${failure.text}${times}; nothing failed`;
    return make("li", failure.failed ? "failed" : "", make("span", "time", `${seconds(failure.time)} s`), link(item, text),
      make("i", failure.fault ? "origin" : "origin real", origin));
  }));
}

// Until when a chapter takes: one that goes on, until now.
const goesOn = (chapter) => run.live && !run.ended && !chapter.over && chapter.number === chapters.length - 1;
const endOf = (chapter) => goesOn(chapter) ? Math.max(chapter.end, run.seconds) : chapter.end;

function showOverview() {
  const whole = Math.max(run.seconds, 0.001);
  const x = (time) => `${(100 * time) / whole}%`;
  const step = [0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1800, 3600, 7200, 21600, 86400]
    .find((size) => whole / size <= (narrow.matches ? 4 : 9)) ?? 86400;
  const ticks = [];
  for (let time = 0; time <= whole; time += step) ticks.push(time);
  const axis = make("div", "stage axis", make("span"), draw("svg", {}, ...ticks.map((time) =>
    draw("text", { x: x(time), y: 13, "text-anchor": time ? "middle" : "start" }, `${+time.toFixed(2)} s`))), make("span"));
  document.getElementById("overview").replaceChildren(axis, ...chapters.map((chapter) => stage(chapter, x, ticks)));
}

// The line of a chapter: a bar for each of its phases, and a mark where something failed.
function stage(chapter, x, ticks) {
  const end = endOf(chapter);
  const bar = ([name, begin, until]) => draw("rect", { class: name, x: x(begin), y: 6, height: 14, rx: 3, ry: 3,
    width: `max(2px, ${x(until - begin)})` }, draw("title", {}, `${name}: ${duration(until - begin)}`));
  const phases = chapter.phases.length ? chapter.phases : [["other", chapter.begin, end]];
  const last = phases[phases.length - 1];
  const picture = draw("svg", { "aria-hidden": "true" },
    ...ticks.map((time) => draw("line", { class: "grid", x1: x(time), x2: x(time), y1: 0, y2: 26 })),
    ...phases.map((phase) => bar(phase === last && goesOn(chapter) ? [last[0], last[1], end] : phase)));
  for (const failure of failuresOf(chapter)) {
    picture.append(draw("svg", { x: x(failure.time), y: 13, overflow: "visible" },
      draw("path", { class: failure.failed ? "mark" : "mark held", d: "M0 -8 L5 0 L0 8 L-5 0 Z" }, draw("title", {}, failure.text))));
  }
  for (const rect of picture.querySelectorAll("rect")) rect.style.width = rect.getAttribute("width");
  return makeButton(chapter.phases.length ? "stage page" : "stage", () => {
    if (chapter.element.hidden) showAll();
    if (!chapter.open) setOpen(chapter, true);
    chapter.element.scrollIntoView({ behavior: "smooth" });
  }, make("span", "name", chapter.title), picture, make("span", "length", duration(end - chapter.begin)));
}

function showLegend() {
  const legend = { fetch: "fetch a page", import: "import wait", report: "report", other: "other", mark: "failure" };
  document.getElementById("legend").append(...Object.entries(legend).map(([name, text]) =>
    make("span", "", make("i", name), text)));
}
