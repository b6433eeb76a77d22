// One host: what each authority says of it, and what has changed since the
// page was opened.

import { ageOf } from "./ages.js";
import * as api from "./api.js";
import { changesBetween } from "./changes.js";
import { announce, make, name } from "./dom.js";
import { compare, count, shortClock } from "./format.js";
import { attributesOf } from "./descriptions.js";
import { aboutOf, collectionFacts, factNode } from "./facts.js";
import { link } from "./live.js";
import { payloadView } from "./payload.js";
import { load } from "./table.js";

// What people look for first comes first.
const ORDER = ["host", "filesystem", "network", "volume", "listener", "software", "service"];
const SHOWN = 200; // changes

const rank = (record) => {
  const place = ORDER.indexOf(record.authority);
  const aside = record.typeName === "external" || record.authority.startsWith("machine.");
  return (aside ? 100 : 0) + (place < 0 ? ORDER.length : place);
};

const keyOf = (record) => `${record.master}/${record.authority}/${record.type}`;

// The announcement of what is produced on demand is answered by the host
// itself; where both are known one of them is enough.
function worthShowing(records) {
  const data = records.filter((record) => record.typeName !== "remotepull" ||
    !records.some((other) => other !== record && other.authority === record.authority &&
                             other.master === record.master && other.typeName === "client"));
  return data.sort((left, right) => rank(left) - rank(right) ||
    compare(left.authority, right.authority) || left.type - right.type);
}

class HostPage {
  before = new Map(); // collections as they were when the page was opened
  now = new Map();
  records = [];
  described = new Map(); // of authorities: their attributes
  opened = Date.now();
  chosen = null; // the key of the discovery that is shown
  payload = false; // shown as it is

  constructor(room, subject, wanted, signal) {
    this.room = room;
    this.subject = subject;
    this.wanted = wanted;
    this.signal = signal;
    this.head = make("div", { class: "host-head" });
    this.changes = make("section", { class: "changes", "aria-labelledby": "changes-title" });
    this.tabs = make("div", { class: "tabs", role: "tablist", "aria-label": "Authorities",
      "aria-orientation": "vertical" });
    this.panel = make("section", { class: "panel surface", role: "tabpanel", id: "panel",
      tabindex: "0" });
    this.tabs.addEventListener("keydown", (event) => this.tabKey(event));
  }

  async open() {
    const answer = await api.json(`hosts/${api.part(this.subject)}`, {}, this.signal);
    this.take(answer);
    this.room.replaceChildren(this.head, this.changes,
      make("div", { class: "host-body" }, this.tabs, this.panel));
    this.chosen = keyOf(this.records.find((one) => one.authority === this.wanted) ??
      this.records[0]);
    this.drawTabs();
    await this.fetch(this.record(this.chosen));
    this.drawPanel();
    performance.mark("host-usable");
    // What will be compared; what is on demand is asked for only when it is looked at.
    for (const record of this.records) {
      if (!record.onDemand && !this.now.has(keyOf(record))) await this.fetch(record);
    }
    this.drawTabs();
    this.drawChanges();
  }

  take(answer) {
    this.records = worthShowing(answer.records);
    this.summaries = answer.summaries;
    this.drawHead();
  }

  record(key) {
    return this.records.find((one) => keyOf(one) === key);
  }

  address(record) {
    return `discoveries/${api.part(record.subject)}/${api.part(record.authority)}`;
  }

  async fetch(record) {
    if (!record) return;
    const key = keyOf(record);
    let collection;
    try {
      if (!this.described.has(record.authority)) {
        this.described.set(record.authority,
          await attributesOf(record.authority, this.signal).catch(() => []));
      }
      collection = await api.json(this.address(record),
        { type: record.type, master: record.master }, this.signal);
    } catch (error) {
      if (error.name === "AbortError") throw error;
      collection = { ...record, problem: error };
      if (this.now.has(key)) return; // what was known is worth more
    }
    this.now.set(key, collection);
    if (!this.before.has(key) && !collection.problem && this.firstSight(record)) {
      this.before.set(key, collection);
    }
  }

  // Whether a discovery was there when the page was opened, as far as is known.
  firstSight(record) {
    return record.onDemand || !this.arrived?.has(keyOf(record));
  }

  drawHead() {
    const silent = this.summaries.some((one) => one.silent);
    const latest = this.summaries.map((one) => one.latestTime).filter(Boolean).sort().at(-1) ?? null;
    const expires = this.summaries.map((one) => one.firstExpiresTime).filter(Boolean).sort()[0] ?? null;
    const masters = this.summaries.map((one) => one.master);
    this.head.replaceChildren(
      make("h1", { class: "host-title" }, name(this.subject),
        silent ? make("span", { class: "badge bad" }, "silent") : null),
      make("p", { class: "soft host-line" },
        make("span", {}, "Latest report ", ageOf(latest), latest ? " ago" : ""),
        make("span", {}, "first expires ", ageOf(expires, "until")),
        make("span", {}, masters.length > 1 ? "masters " : "master ",
          masters.map((one, index) => [index ? ", " : "", name(one)]))));
  }

  // Whether a record only describes what can be asked of another, which is
  // offered where questions are asked. Until it is read, that is supposed.
  isDescription(record) {
    if (record.typeName !== "external") return false;
    const of = record.authority.replace(/-filter$/, "");
    const collection = this.now.get(keyOf(record));
    return this.records.some((other) => other.authority === of && other !== record &&
        other.typeName !== "external") &&
      !(collection?.items?.length || collection?.problem);
  }

  drawTabs() {
    const focused = this.tabs.contains(document.activeElement);
    const shown = this.records.filter((record) => !this.isDescription(record));
    this.tabs.replaceChildren(...shown.map((record) => {
      const key = keyOf(record);
      const here = key === this.chosen;
      const plain = record.typeName === "client" && this.summaries.length < 2;
      return make("button", {
        type: "button", role: "tab", class: "tab", "data-key": key, tabindex: here ? "0" : "-1",
        "aria-selected": String(here), "aria-controls": "panel",
        onclick: () => this.choose(key),
      },
      make("span", { class: "tab-name" }, name(record.authority),
        plain ? null : make("span", { class: "soft tab-type" }, " ", record.typeName,
          this.summaries.length > 1 ? [" · ", name(record.master)] : null)),
      make("span", { class: "soft tab-age" },
        record.onDemand ? "on demand" : ageOf(record.discoveryTime)));
    }));
    if (focused) this.tabs.querySelector("[tabindex='0']")?.focus();
  }

  tabKey(event) {
    const all = [...this.tabs.querySelectorAll("[role=tab]")];
    const at = all.indexOf(document.activeElement);
    const next = { ArrowDown: at + 1, ArrowRight: at + 1, ArrowUp: at - 1, ArrowLeft: at - 1,
      Home: 0, End: all.length - 1 }[event.key];
    if (next === undefined || at < 0) return;
    event.preventDefault();
    const target = all[(next + all.length) % all.length];
    target.focus();
    this.choose(target.dataset.key);
  }

  async choose(key) {
    this.chosen = key;
    const record = this.record(key);
    const query = new URLSearchParams({ authority: record.authority });
    history.replaceState(null, "", `#/host/${encodeURIComponent(this.subject)}?${query}`);
    this.drawTabs();
    if (!this.now.has(key)) {
      this.panel.replaceChildren(make("p", { class: "empty" }, "Asking for it …"));
      await this.fetch(record);
      if (this.chosen !== key || this.signal.aborted) return;
    }
    this.drawPanel();
  }

  drawPanel() {
    const record = this.record(this.chosen);
    const collection = this.now.get(this.chosen);
    if (!record || !collection) return;
    const switching = (payload, label) => make("button", {
      type: "button", "aria-pressed": String(this.payload === payload),
      onclick: (event) => {
        if (this.payload === payload) return;
        this.payload = payload;
        this.drawPanel();
        const text = event.currentTarget.textContent;
        [...this.panel.querySelectorAll(".switch button")]
          .find((button) => button.textContent === text)?.focus();
      },
    }, label);
    const title = make("div", { class: "panel-head" },
      make("h2", {}, name(record.authority)),
      make("span", { class: "soft" }, collection.problem ? "" : count(
        collection.items.length || collection.attributes?.length || 0,
        collection.items.length || !collection.attributes?.length ? "item" : "attribute"),
      collection.complete === false ? ", not read to the end" : ""),
      make("span", { class: "grow" }),
      make("div", { class: "switch", role: "group", "aria-label": "Form" },
        switching(false, "Facts"), switching(true, "Payload")));
    const content = make("div", { class: "panel-content" });
    this.panel.setAttribute("aria-label", record.authority);
    this.panel.replaceChildren(title, content);
    if (this.payload) {
      payloadView(content, `${this.address(record)}?${new URLSearchParams({
        type: record.type, master: record.master })}`, record, this.signal);
    } else if (collection.problem) {
      content.append(make("p", { class: "problem", role: "alert" }, collection.problem.message));
    } else {
      collectionFacts(content, collection, { marked: this.changedFacts(this.chosen),
        attributes: this.described.get(record.authority) ?? [], signal: this.signal });
    }
  }

  // Of the discovery that is shown: the facts that are marked, as "item\nfact".
  changedFacts(key) {
    return new Set(changesBetween(this.before, this.now)
      .filter((change) => change.key === key && change.fact !== null)
      .map((change) => `${change.item}\n${change.fact}`));
  }

  drawChanges() {
    const changes = changesBetween(this.before, this.now)
      .filter((change) => !this.now.get(change.key)?.problem);
    const schemaOf = (change) => aboutOf(this.now.get(change.key)?.schema, change.fact);
    const rows = changes.slice(0, SHOWN).map((change) => make("tr", {},
      make("td", {}, name(change.authority)),
      make("td", {}, change.item === null ? "" : name(change.item)),
      change.fact === null
        ? make("td", { colspan: 3, class: change.change === "gone" ? "bad" : "good" },
          change.item === null ? `discovery ${change.change}` : `item ${change.change}`)
        : [make("td", {}, name(change.fact)),
          make("td", { class: "soft" }, factNode(change.old, schemaOf(change))),
          make("td", {}, factNode(change.now, schemaOf(change)))]));
    const since = shortClock(this.opened);
    const open = this.changes.querySelector("details")?.open ?? true;
    const title = make("h2", { id: "changes-title" }, changes.length
      ? `${count(changes.length, "change")} since ${since}`
      : `Nothing has changed since ${since}`);
    if (!changes.length) {
      this.changes.replaceChildren(title);
      return;
    }
    const details = make("details", { open },
      make("summary", {}, title),
      make("div", { class: "changes-table", tabindex: "0", role: "region",
        "aria-labelledby": "changes-title" },
      make("table", { class: "plain-table" },
        make("thead", {}, make("tr", {}, ["Authority", "Item", "Fact", "Was", "Is"]
          .map((text) => make("th", { scope: "col" }, text)))),
        make("tbody", {}, rows))),
      changes.length > SHOWN
        ? make("p", { class: "soft" }, `and ${changes.length - SHOWN} more`) : null);
    this.changes.replaceChildren(details);
  }

  // Something of the host has come, changed or gone.
  async renew() {
    let answer;
    try {
      answer = await api.json(`hosts/${api.part(this.subject)}`, {}, this.signal);
    } catch (error) {
      if (error.name === "AbortError" || error.status !== 404) return;
      answer = { records: [], summaries: this.summaries };
    }
    const earlier = new Map(this.records.map((record) => [keyOf(record), record]));
    this.take(answer);
    this.arrived ??= new Set();
    let shownChanged = false;
    for (const record of this.records) {
      const key = keyOf(record);
      const old = earlier.get(key);
      if (!old) this.arrived.add(key);
      if (record.onDemand || (old && old.discoveryTime === record.discoveryTime)) continue;
      await this.fetch(record);
      shownChanged ||= key === this.chosen;
    }
    for (const [key] of earlier) {
      if (!this.record(key)) this.now.delete(key);
    }
    if (!this.records.length) {
      this.tabs.replaceChildren();
      this.panel.replaceChildren(make("p", { class: "empty" }, "Nothing is known of it any more."));
    } else {
      if (!this.record(this.chosen)) {
        await this.choose(keyOf(this.records[0]));
      } else if (shownChanged && !this.payload) {
        this.drawPanel();
      }
      this.drawTabs();
    }
    const text = this.changes.querySelector("h2")?.textContent;
    this.drawChanges();
    const after = this.changes.querySelector("h2")?.textContent;
    if (text && after !== text) announce(after);
  }
}

export async function hostView(room, { rest, parameters, signal }) {
  load();
  const subject = rest.join("/");
  room.append(make("h1", {}, name(subject)), make("p", { class: "empty" }, "Fetching …"));
  const page = new HostPage(room, subject, parameters.get("authority"), signal);
  const open = async () => {
    try {
      await page.open();
    } catch (error) {
      if (error.name === "AbortError") return;
      room.replaceChildren(make("h1", {}, name(subject)),
        error.status === 404
          ? make("p", { class: "empty" }, "No master knows a host of this name.")
          : make("p", { class: "problem", role: "alert" }, error.message));
    }
  };
  let timer = null;
  let renewing = Promise.resolve();
  const renew = () => {
    clearTimeout(timer);
    timer = setTimeout(() => {
      renewing = renewing.then(() => page.renew()).catch(() => {}); // until the next event
    }, 300);
  };
  const opened = open();
  const after = () => opened.then(() => !signal.aborted && renew());
  link.addEventListener("record", ({ detail }) => {
    if (detail.record.subject === subject) after();
  }, { signal });
  link.addEventListener("reset", after, { signal });
  signal.addEventListener("abort", () => clearTimeout(timer));
  await opened;
  return subject;
}
