// Where the page begins: which view an address means, the theme, the keys that
// work everywhere, and the state of the connection.

import { announce, make, name } from "./dom.js";
import { link } from "./live.js";
import { shortClock } from "./format.js";
import * as store from "./store.js";
import { startTicking } from "./ages.js";
import { remember, remembered } from "./remember.js";
import { fleetView } from "./fleet.js";
import { hostsView } from "./hosts.js";
import { hostView } from "./host.js";
import { askView } from "./ask.js";

// The table library sets some constant markup of its own. That may pass; any
// other text in its place stays text, whoever wrote it.
const MARKUP = new Set(["", "&nbsp;", "<div class='tabulator-arrow'></div>"]);
globalThis.trustedTypes?.createPolicy("default", {
  createHTML: (text) => (MARKUP.has(text)
    ? text
    : text.replaceAll("&", "&amp;").replaceAll("<", "&lt;").replaceAll(">", "&gt;")),
});

const VIEWS = { fleet: fleetView, hosts: hostsView, host: hostView, ask: askView };

const main = document.getElementById("main");
let leave = null; // ends what the view at hand does
let shown = 0; // counts views, so that one that comes late does not replace a later one

// "#/host/web7?a=b" is { view: "host", rest: ["web7"], parameters }.
function readAddress() {
  const [path, query = ""] = location.hash.replace(/^#\/?/, "").split(/\?(.*)/s);
  const [view, ...rest] = path.split("/").map((piece) => {
    try {
      return decodeURIComponent(piece);
    } catch {
      return piece;
    }
  });
  return { view: view || "fleet", rest, parameters: new URLSearchParams(query) };
}

async function showView() {
  const { view, rest, parameters } = readAddress();
  const build = VIEWS[view] ?? VIEWS.fleet;
  const section = VIEWS[view] ? view : "fleet";
  shown += 1;
  const mine = shown;
  leave?.();
  leave = null;
  const room = make("div", { class: `view view-${section}` });
  main.replaceChildren(room);
  for (const anchor of document.querySelectorAll("nav a")) {
    const here = anchor.hash === `#/${section === "host" ? "hosts" : section}`;
    if (here) anchor.setAttribute("aria-current", section === "host" ? "true" : "page");
    else anchor.removeAttribute("aria-current");
  }
  const ending = new AbortController();
  leave = () => ending.abort();
  window.scrollTo(0, 0);
  const title = await build(room, { rest, parameters, signal: ending.signal });
  if (mine !== shown) return;
  document.title = `${title} – Tessarine`;
}

let first = true;
async function go() {
  await showView();
  // A new view is read from its heading; when the page opens, the browser does that.
  if (!first) {
    main.querySelector("h1")?.setAttribute("tabindex", "-1");
    if (!main.contains(document.activeElement)) main.querySelector("h1")?.focus({ preventScroll: true });
    announce(document.title);
  }
  first = false;
}
window.addEventListener("hashchange", go);

const THEMES = ["auto", "light", "dark"];
const themeButton = document.getElementById("theme");
function setTheme(theme) {
  if (theme === "auto") delete document.documentElement.dataset.theme;
  else document.documentElement.dataset.theme = theme;
  themeButton.textContent = { auto: "◐ Auto", light: "○ Light", dark: "● Dark" }[theme];
  themeButton.setAttribute("aria-label", `Colours: ${theme}`);
}
let theme = THEMES.find((one) => one === remembered("theme")) ?? "auto";
setTheme(theme);
themeButton.addEventListener("click", () => {
  theme = THEMES[(THEMES.indexOf(theme) + 1) % THEMES.length];
  remember("theme", theme);
  setTheme(theme);
});

const jumpName = document.getElementById("jump-name");
document.getElementById("jump").addEventListener("submit", (event) => {
  event.preventDefault();
  const wanted = jumpName.value.trim();
  if (wanted === "") return;
  const found = store.findHost(wanted);
  jumpName.value = "";
  jumpName.blur();
  location.hash = found === null
    ? `#/hosts?search=${encodeURIComponent(wanted)}`
    : `#/host/${encodeURIComponent(found)}`;
});

// "/" leads to the search, "g" and a letter to a view, Escape out of a field.
let awaited = false;
document.addEventListener("keydown", (event) => {
  const writing = event.target.closest?.("input, textarea, select, [contenteditable]");
  if (event.ctrlKey || event.metaKey || event.altKey) return;
  if (writing) {
    if (event.key === "Escape" && writing === jumpName) jumpName.blur();
    return;
  }
  if (event.key === "/") {
    event.preventDefault();
    (main.querySelector("[data-search]") ?? jumpName).focus();
  } else if (awaited && "fha".includes(event.key)) {
    location.hash = { f: "#/fleet", h: "#/hosts", a: "#/ask" }[event.key];
  }
  awaited = event.key === "g";
});

// The state of the connection, in a corner as long as all is well and across
// the page when it is not.
const away = document.getElementById("away");
const linkState = document.getElementById("link");
function showLink() {
  const { gateway, masters } = link;
  const missing = masters.filter((master) => !master.reachable);
  const lost = gateway.state === "lost";
  linkState.dataset.state = lost || missing.length ? "away" : gateway.state;
  linkState.textContent = lost || missing.length
    ? "Away"
    : { live: "Live", connecting: "Connecting" }[gateway.state];
  const said = [];
  if (lost) {
    said.push(["The gateway does not answer", ` since ${shortClock(gateway.since)}.`]);
  } else {
    for (const master of missing) {
      said.push(["The master ", name(master.name, { class: "who" }), " is away",
        master.since ? ` since ${shortClock(master.since)}` : "", "."]);
    }
  }
  const hidden = said.length === 0;
  if (!hidden) said.push("What is shown is what was known before.");
  const text = said.map((piece) => (typeof piece === "string" ? piece
    : piece.map((one) => one.textContent ?? one).join(""))).join(" ");
  if (text === away.dataset.said) return; // an alert that is set again is read again
  away.dataset.said = text;
  away.hidden = hidden;
  away.replaceChildren(...said.map((piece) => make("span", {}, piece)));
}
link.addEventListener("change", showLink);

startTicking();
store.start();
showLink();
go();
