// Ages that grow while one looks at them.

import { make } from "./dom.js";
import { age, clock, until } from "./format.js";

const FORMS = { age, until };

// A time as its age ("age") or as what is left until it ("until").
export function ageOf(time, form = "age") {
  if (time === null || time === undefined) return make("span", { class: "soft" }, "–");
  return make("time", { datetime: time, "data-form": form, title: clock(time) },
    FORMS[form](time));
}

function tick() {
  const now = Date.now();
  for (const node of document.querySelectorAll("time[data-form]")) {
    const text = FORMS[node.dataset.form](node.getAttribute("datetime"), now);
    if (node.textContent !== text) node.textContent = text;
  }
}

export function startTicking() {
  setInterval(() => {
    if (!document.hidden) tick();
  }, 1000);
  document.addEventListener("visibilitychange", tick);
}
