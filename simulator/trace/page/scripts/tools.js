// What stays visible above the messages: search, switches and the processes; and the choice between light and dark.

const KINDS = { log: "log", connection: "connections", note: "notes" };

function switchOf(name, className, pressed, click) {
  const button = makeButton(className, () => button.setAttribute("aria-pressed", String(click())), name);
  button.setAttribute("aria-pressed", String(pressed));
  return button;
}

function showTools() {
  const switches = document.getElementById("switches");
  for (const name of Object.values(KINDS)) {
    switches.append(switchOf(name, "", true, () => !document.body.classList.toggle(`without-${name}`)));
  }
  switches.append(switchOf("only failures", "only", false, () => {
    onlyFailures = !onlyFailures;
    narrowDown();
    return onlyFailures;
  }));
  document.getElementById("processes").append(make("div", "lanes", ...lanes.map((name) => {
    const button = switchOf((narrow.matches ? SHORT_NAMES : NAMES)[name], `only of-${name}`, false, () => {
      const chosen = !wantedProcesses.delete(name);
      if (chosen) wantedProcesses.add(name);
      narrowDown();
      return chosen;
    });
    button.title = `Only what concerns ${NAMES[name]}`;
    return button;
  })));
}

// Everything that was left out is there again.
function showAll() {
  document.getElementById("search").value = "";
  words = [];
  wantedProcesses.clear();
  onlyFailures = false;
  for (const button of document.querySelectorAll("button.only")) button.setAttribute("aria-pressed", "false");
  narrowDown();
}

// Items of this kind are not hidden.
function showKind(kind) {
  const name = KINDS[kind];
  if (!document.body.classList.contains(`without-${name}`)) return;
  [...document.querySelectorAll("#switches button")].find((button) => button.textContent === name).click();
}

function watchKeys() {
  const input = document.getElementById("search");
  let waiting = 0;
  input.addEventListener("input", () => {
    clearTimeout(waiting);
    waiting = setTimeout(() => {
      words = input.value.toLowerCase().split(/\s+/).filter(Boolean);
      narrowDown();
    }, 120);
  });
  input.addEventListener("keydown", (event) => {
    if (event.key === "Enter") showHit(event.shiftKey ? -1 : 1);
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
  const choices = ["auto", "light", "dark"];
  let choice = "auto";
  const button = document.getElementById("theme");
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
