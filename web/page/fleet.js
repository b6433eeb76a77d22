// The fleet at a glance: how many hosts there are, and which need a look.

import { ageOf } from "./ages.js";
import * as api from "./api.js";
import { make, name } from "./dom.js";
import { count, fact, moment, number, shortClock, typed } from "./format.js";
import { hostAddress } from "./hosts.js";
import { byAge } from "./reports.js";
import { known, onHosts, onProblem } from "./store.js";

const LISTED = 50; // of each kind; the rest is a click away
const AGAIN = 5 * 60 * 1000; // payloads are read again after that, while the view is open

// What is read from payloads: where to ask, and what of it is worth a line.
export const LOOKS = {
  failing: {
    authority: "service",
    where: '(Kind = push or Kind = pull) and LastResult != success and LastResult != "not run" ' +
      'and LastResult != "data of higher priority exists"',
  },
  full: { authority: "filesystem", where: "Use >= 90% and (Kind = local or Kind = memory)" },
};

// Kept from one visit of the view to the next.
const found = new Map(); // of LOOKS: { items, time, complete, problem }

async function look(kind, signal, progress) {
  const result = { items: [], time: Date.now(), complete: false, problem: null };
  try {
    for await (const batch of api.items(LOOKS[kind], signal)) {
      result.items.push(...batch);
      progress(result.items.length);
    }
    result.complete = true;
  } catch (error) {
    if (error.name === "AbortError") return;
    result.problem = error;
    if (error instanceof api.Incomplete) result.items = error.items;
  }
  if (kind === "full") result.items.sort((left, right) => shareOf(right) - shareOf(left));
  found.set(kind, result);
}

const askAddress = ({ authority, where }) =>
  `#/ask?${new URLSearchParams({ authority, where })}`;

function figure(label, value, { address = null, tone = null, note = null } = {}) {
  const number_ = make("dd", { class: tone && value !== "0" ? `figure-value ${tone}` : "figure-value" },
    address && value !== "0" ? make("a", { href: address }, value) : value,
    note ? make("span", { class: "figure-note soft" }, note) : null);
  return make("div", { class: "figure" }, make("dt", {}, label), number_);
}

function list(title, entries, { more = null, empty, id, note = null }) {
  const shown = entries.slice(0, LISTED);
  return make("section", { class: "look", "aria-labelledby": id },
    make("h2", { id }, title, note ? make("span", { class: "soft note" }, note) : null),
    shown.length
      ? make("ul", { class: "look-list" }, shown)
      : make("p", { class: "soft none" }, empty),
    more && entries.length > LISTED
      ? make("a", { class: "more", href: more }, `All ${number(entries.length)}`)
      : null);
}

const entry = (host, ...rest) => make("li", {},
  make("a", { href: hostAddress(host), class: "host-name" }, name(host)), rest);

const SHARE = { type: "number", unit: "%" };
const SIZE = { type: "size" };
const shareOf = (item) => typed(item.facts.Use, SHARE);

function usage(item) {
  const share = Math.min(100, shareOf(item));
  return make("svg", { class: "usage", viewBox: "0 0 100 6", preserveAspectRatio: "none",
    "aria-hidden": "true" },
  make("rect", { class: "track", width: 100, height: 6 }),
  make("rect", { class: share >= 95 ? "fill bad" : "fill warn", width: share, height: 6 }));
}

// One column for each age, which leads to its hosts.
function picture(hosts) {
  const columns = byAge(hosts);
  const most = Math.max(1, ...columns.map((column) => column.hosts));
  const bars = columns.map((column, index) => {
    const height = column.hosts === 0 ? 0 : Math.max(2, (column.hosts / most) * 100);
    return make("a", { class: "age-bar", href: `#/hosts?only=${column.id}` },
      make("span", { class: "age-count" }, column.hosts ? number(column.hosts)
        : make("span", { class: "unseen" }, "0")),
      make("span", { class: "unseen" }, " hosts, latest report "),
      make("svg", { viewBox: "0 0 10 100", preserveAspectRatio: "none", "aria-hidden": "true" },
        make("rect", { class: "base", y: 99, width: 10, height: 1 }),
        make("rect", { class: index >= 4 ? "late" : "", y: 100 - height, width: 10, height })),
      make("span", { class: "age-label" }, column.label),
      make("span", { class: "unseen" }, " ago"));
  });
  return make("section", { class: "look ages", "aria-labelledby": "ages-title" },
    make("h2", { id: "ages-title" }, "Latest report of each host"),
    make("div", { class: "age-bars" }, bars));
}

export async function fleetView(room, { signal }) {
  const figures = make("dl", { class: "figures" });
  const body = make("div", { class: "fleet-body" });
  room.append(make("h1", { class: "unseen" }, "Fleet"), figures, body);
  body.append(make("p", { class: "empty" }, "Fetching the fleet …"));
  const progress = { failing: 0, full: 0 };
  let looking = false;

  const lookNote = (kind) => {
    const result = found.get(kind);
    if (!result) return looking ? `looking … ${progress[kind] ? number(progress[kind]) : ""}` : "";
    if (result.problem instanceof api.Incomplete) return "not all could be read";
    if (result.problem) return `not all could be read: ${result.problem.message}`;
    return `as of ${shortClock(result.time)}`;
  };
  const lookFigure = (kind) => {
    const result = found.get(kind);
    if (!result) return "…";
    return `${number(result.items.length)}${result.complete ? "" : "+"}`;
  };

  const draw = () => {
    if (signal.aborted || !known.hosts) return;
    const hosts = [...known.hosts.values()];
    const silent = hosts.filter((host) => host.silent)
      .sort((left, right) => (moment(left.latestTime) || 0) - (moment(right.latestTime) || 0));
    let oldest = null;
    for (const host of hosts) {
      if (host.latestTime && (oldest === null || host.latestTime < oldest.latestTime)) oldest = host;
    }
    const focused = document.activeElement?.getAttribute("href");
    figures.replaceChildren(
      figure("Hosts", number(hosts.length), { address: "#/hosts" }),
      figure("Silent", number(silent.length), { address: "#/hosts?only=silent", tone: "bad" }),
      figure("Failing explorers", lookFigure("failing"),
        { address: askAddress(LOOKS.failing), tone: "bad" }),
      figure("Full file systems", lookFigure("full"),
        { address: askAddress(LOOKS.full), tone: "warn" }),
      figure("Oldest report", oldest ? ageOf(oldest.latestTime) : "–",
        oldest ? { note: make("a", { href: hostAddress(oldest.host), class: "host-name" },
          name(oldest.host)) } : {}));
    const failing = found.get("failing")?.items ?? [];
    const full = found.get("full")?.items ?? [];
    const scrolled = body.querySelector(".look-list")?.scrollTop;
    body.replaceChildren(
      make("div", { class: "fleet-column" },
        list("Silent hosts", silent.map((host) => entry(host.host,
          make("span", { class: "detail soft" }, "told something last"),
          make("span", { class: "value" }, ageOf(host.latestTime), " ago"))),
        { id: "silent-title", more: "#/hosts?only=silent", empty: "Every host reports." }),
        picture(hosts)),
      make("div", { class: "fleet-column" },
        list("Failing explorers", failing.map((item) => entry(item.subject,
          make("span", { class: "detail" }, name(item.name)),
          make("span", { class: "value bad" }, name(fact(item.facts.LastResult))))),
        { id: "failing-title", more: askAddress(LOOKS.failing), note: lookNote("failing"),
          empty: found.has("failing") ? "None fails." : "" }),
        list("Full file systems", full.map((item) => entry(item.subject,
          make("span", { class: "detail" }, name(item.name)),
          usage(item),
          make("span", { class: "value" }, `${fact(item.facts.Use, SHARE)} of ${fact(item.facts.Size, SIZE)}`))),
        { id: "full-title", more: askAddress(LOOKS.full), note: lookNote("full"),
          empty: found.has("full") ? "None is fuller than 90 %." : "" })));
    if (scrolled) body.querySelector(".look-list").scrollTop = scrolled;
    if (focused) room.querySelector(`a[href="${CSS.escape(focused)}"]`)?.focus({ preventScroll: true });
  };

  const lookAgain = async () => {
    if (looking || signal.aborted) return;
    looking = true;
    draw();
    for (const kind of Object.keys(LOOKS)) {
      if (Date.now() - (found.get(kind)?.time ?? 0) < AGAIN) continue;
      await look(kind, signal, (items) => { progress[kind] = items; });
      draw();
    }
    looking = false;
    draw();
  };

  let first = true;
  onHosts(signal, () => {
    draw();
    if (!first) return;
    first = false;
    performance.mark("fleet-usable");
    lookAgain();
  });
  const timer = setInterval(() => {
    if (!document.hidden) lookAgain();
  }, AGAIN / 10);
  signal.addEventListener("abort", () => clearInterval(timer));
  onProblem(signal, (problem) => {
    if (!known.hosts) {
      body.replaceChildren(make("p", { class: "problem", role: "alert" }, problem.message));
    }
  });
  return "Fleet";
}
