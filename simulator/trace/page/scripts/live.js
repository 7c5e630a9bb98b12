// The page of a run that goes on asks for more, again and again.

const AGAIN = 500;  // milliseconds between two questions, so that a fast run does not keep the browser busy

async function follow() {
  const state = document.getElementById("state");
  let next = 0, followed = false;
  while (!run.ended) {
    const answer = await fetch(`run?from=${next}`).then((response) => response.json()).catch(() => null);
    run.ended = answer === null;
    const changed = new Set();
    for (const batch of answer?.batches ?? []) for (const number of take(batch)) changed.add(number);
    next = answer?.next ?? next;
    run.seconds = Math.max(run.seconds, answer?.seconds ?? 0);
    const grown = [...changed].some((number) => !chapters[number].element);
    show(changed);
    if (grown) openSome(false);
    followed ||= changed.size > 0 && followAddress();
    state.textContent = run.ended ? "it has ended" : "it goes on";
    await new Promise((done) => setTimeout(done, answer?.more ? 0 : AGAIN));
  }
}

follow();
