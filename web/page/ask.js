// A question over an authority: what its items must be like, on all hosts.

import * as api from "./api.js";
import { announce, make, name, save, visible } from "./dom.js";
import { attributesOf, schemaOf } from "./descriptions.js";
import { csv, jsonText } from "./export.js";
import { factColumns, rowOf, widthOfNames } from "./facts.js";
import { count } from "./format.js";
import { hostAddress } from "./hosts.js";
import { indexOf, mistakeRange, tokens, written } from "./query.js";
import { QueryField } from "./query-field.js";
import { authorities, known, onHosts } from "./store.js";
import { createTable, load } from "./table.js";

const MOST = 50000; // items that are kept of an answer
const DRAWN_EVERY = 400; // milliseconds, while an answer comes

const EXAMPLES = [
  ["filesystem", "Use > 80%", "File systems that fill up"],
  ["host", 'KernelRelease like "6.1*"', "Hosts with a kernel of that series"],
  ["listener", "Port < 1024 and Protocol = tcp", "What listens on the low ports"],
  ["software", 'Package = "libc6"', "Which version of a package is where"],
];

function questionAddress({ authority, subject, where }) {
  const query = new URLSearchParams();
  if (authority) query.set("authority", authority);
  if (subject) query.set("subject", subject);
  if (where) query.set("where", where);
  return `#/ask${query.size ? `?${query}` : ""}`;
}

class AskPage {
  items = [];
  attributes = [];
  running = null;

  constructor(room, parameters, signal) {
    this.signal = signal;
    this.authority = make("select", { id: "ask-authority", required: true,
      onchange: () => this.describe() });
    this.subject = make("input", { id: "ask-subject", placeholder: "all", spellcheck: "false",
      autocomplete: "off", maxlength: "4096" });
    this.field = new QueryField({ id: "ask-where", submit: () => this.submit() });
    this.mistake = make("p", { id: "ask-mistake", class: "mistake", hidden: true });
    this.attributeList = make("div", { class: "attributes" });
    this.state = make("p", { class: "soft", role: "status" });
    this.saves = make("div", { class: "bar" });
    this.result = make("div", { class: "table-room" });
    const form = make("form", { class: "question", onsubmit: (event) => {
      event.preventDefault();
      this.submit();
    } },
    make("div", { class: "question-part" },
      make("label", { for: "ask-authority" }, "Authority"), this.authority),
    make("div", { class: "question-part" },
      make("label", { for: "ask-subject" }, "Hosts"), this.subject),
    make("div", { class: "question-part question-where" },
      make("label", { for: "ask-where" }, "Items where"), this.field.element, this.mistake),
    make("div", { class: "question-part" }, make("button", { class: "main" }, "Ask")));
    room.append(make("h1", {}, "Ask"), form, this.attributeList,
      make("div", { class: "bar" }, this.state, make("span", { class: "grow" }), this.saves),
      this.result);
    this.asked = { authority: parameters.get("authority") ?? "",
      subject: parameters.get("subject") ?? "", where: parameters.get("where") ?? "" };
    this.subject.value = this.asked.subject;
    this.field.value = this.asked.where;
    this.field.input.setAttribute("aria-describedby", "ask-mistake");
    this.field.input.addEventListener("input", () => this.showMistake(null));
    onHosts(signal, () => this.fillAuthorities());
    if (!known.hosts) this.fillAuthorities();
    if (this.asked.authority) this.run(this.asked);
    else this.showExamples();
  }

  fillAuthorities() {
    const chosen = this.authority.value || this.asked.authority;
    const names = authorities().filter((one) => !one.startsWith("machine."));
    if (chosen && !names.includes(chosen)) names.unshift(chosen);
    const present = [...this.authority.options].map((option) => option.value);
    if (JSON.stringify(present) === JSON.stringify(names)) return;
    this.authority.replaceChildren(...names.map((one) =>
      make("option", { value: one }, visible(one))));
    this.authority.value = chosen || (names.includes("filesystem") ? "filesystem" : names[0]);
    if (this.described !== this.authority.value) this.describe();
  }

  // Shows what can be asked of the authority.
  async describe() {
    const authority = this.authority.value;
    this.described = authority;
    if (!authority) return;
    let attributes = [];
    try {
      attributes = await attributesOf(authority, this.signal);
    } catch (error) {
      if (error.name === "AbortError") return;
    }
    if (this.described !== authority) return;
    this.attributes = attributes;
    this.field.attributes = attributes;
    this.attributeList.replaceChildren(...(attributes.length ? [
      make("span", { class: "soft" }, "Can be asked for"),
      attributes.map((one) => make("button", {
        type: "button", class: "attribute", title: one.description,
        onclick: () => this.field.insert(`${written(one.name)} `),
      }, name(one.name), make("span", { class: "soft" }, ` ${one.unit || one.type}`)))]
      .flat() : [make("span", { class: "soft" }, "Nobody describes what can be asked for here.")]));
  }

  showExamples() {
    const have = new Set(authorities());
    this.result.replaceChildren(make("div", { class: "examples" },
      make("p", { class: "soft" }, "For example"),
      make("ul", {}, EXAMPLES.filter(([authority]) => !known.hosts || have.has(authority))
        .map(([authority, where, words]) => make("li", {},
          make("a", { href: questionAddress({ authority, where }) }, words),
          make("code", { class: "soft mono" }, `${authority}: ${where}`))))));
  }

  submit() {
    const question = { authority: this.authority.value, subject: this.subject.value.trim(),
      where: this.field.value.trim() };
    const address = questionAddress(question);
    if (address !== location.hash) history.pushState(null, "", address);
    this.run(question);
  }

  showMistake(problem) {
    this.mistake.hidden = problem === null;
    this.field.input.setAttribute("aria-invalid", String(problem !== null));
    if (problem === null) {
      this.mistake.replaceChildren();
      this.field.mark(null);
      return;
    }
    const query = this.field.value;
    const index = indexOf(query, problem.position);
    const range = mistakeRange(query, index);
    this.field.mark(range);
    this.mistake.replaceChildren(
      make("button", { type: "button", class: "plain to-mistake",
        onclick: () => this.field.select(range) }, `Line ${problem.position.line}, ` +
        `column ${problem.position.column}`),
      problem.message.replace(/^.*line \d+, column \d+: /s, ""));
  }

  async run(question) {
    this.running?.abort();
    const running = new AbortController();
    this.running = running;
    const signal = AbortSignal.any([running.signal, this.signal]);
    this.asked = question;
    this.items = [];
    this.table = null;
    this.showMistake(null);
    this.saves.replaceChildren();
    this.result.replaceChildren();
    this.state.textContent = "Asking …";
    const began = performance.now();
    let drawn = began;
    let ended = "";
    try {
      const parameters = { authority: question.authority, subject: question.subject,
        where: question.where };
      for await (const batch of api.items(parameters, signal)) {
        for (const item of batch) this.items.push(item);
        if (this.items.length > MOST) {
          this.items.length = MOST;
          ended = `, the first of more`;
          break;
        }
        if (performance.now() - drawn > DRAWN_EVERY) {
          this.state.textContent = `${count(this.items.length, "item")} so far …`;
          drawn = performance.now();
        }
      }
    } catch (error) {
      if (error.name === "AbortError") return;
      if (error.position) {
        this.state.textContent = "";
        this.showMistake(error);
        announce(`Mistake in the query: ${error.message}`);
        this.field.select(mistakeRange(this.field.value, indexOf(this.field.value, error.position)));
        return;
      }
      const isIncomplete = error instanceof api.Incomplete;
      if (isIncomplete) this.items = error.items.slice(0, MOST);
      if (!this.items.length) {
        this.state.textContent = "";
        this.result.replaceChildren(make("p", { class: "problem", role: "alert" }, error.message));
        return;
      }
      ended = isIncomplete ? ", though not all could be read" : ", then the answer broke off";
    }
    if (signal.aborted) return;
    running.abort(); // what is left of the stream is not wanted
    const hosts = new Set(this.items.map((item) => item.subject)).size;
    this.state.textContent = this.items.length
      ? `${count(this.items.length, "item")} on ${count(hosts, "host")}${ended}, ` +
        `in ${((performance.now() - began) / 1000).toFixed(1)} s`
      : "Nothing matches.";
    await this.draw();
  }

  async draw() {
    if (!this.items.length) return;
    const schema = schemaOf(await attributesOf(this.asked.authority, this.signal).catch(() => []));
    // What the question is about stands first.
    const first = tokens(this.asked.where).map((token) => token.value).filter(Boolean);
    const facts = factColumns(this.items, schema, { first });
    this.field.values = valuesOf(this.items);
    const several = new Set(this.items.map((item) => item.master)).size > 1;
    const rows = this.items.map((item, id) => ({ ...rowOf(item, id, schema), subject: item.subject,
      master: item.master }));
    const table = await createTable(this.result, {
      label: "Items that match",
      columns: [
        { field: "subject", title: "Host", frozen: true,
          width: widthOfNames(this.items.map((item) => item.subject)),
          render: (value) => make("a", { href: `${hostAddress(value)}?${new URLSearchParams({
            authority: this.asked.authority })}`, class: "host-name", tabindex: "-1" }, name(value)) },
        ...(several ? [{ field: "master", title: "Master", width: 120,
          render: (value) => name(value) }] : []),
        { field: "item", title: "Item", width: widthOfNames(this.items.map((item) => item.name)),
          render: (value) => name(value) },
        ...facts],
      rows,
      layout: "fitDataFill",
      open: (row) => {
        location.hash = `${hostAddress(row.subject)}?${new URLSearchParams({
          authority: this.asked.authority })}`;
      },
    });
    this.signal.addEventListener("abort", () => table.destroy());
    const names = [...new Set(this.items.flatMap((item) => Object.keys(item.facts)))].sort();
    this.saves.replaceChildren(
      make("button", { type: "button", onclick: () => save(`${this.fileName()}.csv`,
        "text/csv;charset=utf-8", csv(this.items, names)) }, "Save as CSV"),
      make("button", { type: "button", onclick: () => save(`${this.fileName()}.json`,
        "application/json", jsonText(this.items)) }, "Save as JSON"));
  }

  fileName() {
    return this.asked.authority.replace(/[^A-Za-z0-9._-]+/g, "_").slice(0, 100) || "items";
  }
}

// Up to fifty values of each fact, for completion.
function valuesOf(items) {
  const values = new Map();
  for (const item of items.slice(0, 5000)) {
    for (const [fact, value] of Object.entries(item.facts)) {
      if (typeof value !== "string" || value.length > 200) continue;
      if (!values.has(fact)) values.set(fact, new Set());
      if (values.get(fact).size < 50) values.get(fact).add(value);
    }
  }
  return values;
}

export async function askView(room, { parameters, signal }) {
  load();
  new AskPage(room, parameters, signal);
  return "Ask";
}
