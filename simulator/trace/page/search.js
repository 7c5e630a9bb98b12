// Which items have the words that a reader searches for, and where in a text they stand.

let words = [];

function highlighted(text) {
  const fragment = document.createDocumentFragment();
  const low = text.toLowerCase();
  let from = 0;
  while (words.length && low.length === text.length) {
    const hits = words.map((word) => [low.indexOf(word, from), word.length]).filter(([start]) => start >= 0);
    if (!hits.length) break;
    const [start, length] = hits.reduce((one, other) => other[0] < one[0] ? other : one);
    fragment.append(text.slice(from, start), make("mark", "", text.slice(start, start + length)));
    from = start + length;
  }
  fragment.append(text.slice(from));
  return fragment;
}

const itemText = (item) => [item.title, item.detail, item.text, item.fault, NAMES[item.from], NAMES[item.to],
  ...item.fields.flatMap((part) => [part[0], part[3]])].join("\n").toLowerCase();

function matches(row) {
  row.found ??= [row.item, ...row.logs].filter(Boolean).map(itemText).join("\n");
  return words.every((word) => row.found.includes(word));
}

