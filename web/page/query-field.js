// The field in which a query is written: what could come next is offered below
// it, and a mistake is underlined where it is.

import { make, name } from "./dom.js";
import { completions } from "./query.js";

const OFFERED = 12;

export class QueryField {
  attributes = [];
  values = new Map();

  #open = false;
  #offer = null;
  #at = -1; // of the entry that is chosen among those offered

  // `submit` is called when the user wants the query to be run.
  constructor({ id, submit }) {
    this.input = make("textarea", {
      id, rows: "1", spellcheck: "false", autocomplete: "off", autocapitalize: "off",
      placeholder: "everything", class: "mono", "aria-autocomplete": "list",
      "aria-haspopup": "listbox", "aria-controls": `${id}-offers`, "data-search": true,
    });
    this.mirror = make("div", { class: "query-mirror mono", "aria-hidden": "true" });
    this.list = make("ul", { id: `${id}-offers`, class: "offers", role: "listbox",
      "aria-label": "What can stand here", hidden: true });
    this.element = make("div", { class: "query-field" }, this.mirror, this.input, this.list);
    this.input.addEventListener("input", () => {
      this.#fit();
      this.offer();
    });
    this.input.addEventListener("keydown", (event) => this.#key(event, submit));
    this.input.addEventListener("click", () => this.offer());
    this.input.addEventListener("blur", () => this.close());
    this.input.addEventListener("scroll", () => { this.mirror.scrollTop = this.input.scrollTop; });
  }

  get value() {
    return this.input.value;
  }

  set value(text) {
    this.input.value = text;
    this.#fit();
  }

  // Underlines a range ({ start, end }), or nothing.
  mark(range) {
    const text = this.value;
    this.mirror.replaceChildren();
    if (range === null) return;
    this.mirror.append(text.slice(0, range.start),
      make("mark", {}, text.slice(range.start, range.end) || "\u00a0"), text.slice(range.end));
  }

  select({ start, end }) {
    this.input.focus();
    this.input.setSelectionRange(Math.min(start, this.value.length),
      Math.min(end, this.value.length));
    this.close();
  }

  // Puts a text where the caret is.
  insert(text) {
    const { selectionStart, selectionEnd } = this.input;
    const before = this.value.slice(0, selectionStart);
    this.#replace(selectionStart, selectionEnd, /(^|[\s(])$/.test(before) ? text : ` ${text}`);
    this.input.focus();
    this.offer();
  }

  offer() {
    const caret = this.input.selectionStart;
    this.#offer = completions(this.value, caret, this.attributes, this.values);
    const entries = this.#offer.entries.slice(0, OFFERED);
    this.#at = -1;
    this.#open = entries.length > 0 || this.#offer.hint !== null;
    this.list.replaceChildren(...entries.map((entry, index) => make("li", {
      role: "option", id: `${this.list.id}-${index}`, "aria-selected": "false",
      onmousedown: (event) => {
        event.preventDefault(); // the field keeps the focus
        this.#take(entry);
      },
    }, name(entry.label, { class: "mono" }), make("span", { class: "soft" }, entry.detail))));
    if (this.#offer.hint !== null && !entries.length) {
      this.list.append(make("li", { class: "hint soft", role: "option", "aria-disabled": "true",
        "aria-selected": "false" }, `as in ${this.#offer.hint}`));
    }
    this.#show();
  }

  close() {
    this.#open = false;
    this.#show();
  }

  #show() {
    this.list.hidden = !this.#open;
    const options = [...this.list.querySelectorAll("[role=option]:not(.hint)")];
    options.forEach((option, index) => {
      option.setAttribute("aria-selected", String(index === this.#at));
    });
    if (this.#open && this.#at >= 0) {
      this.input.setAttribute("aria-activedescendant", options[this.#at].id);
      options[this.#at].scrollIntoView({ block: "nearest" });
    } else {
      this.input.removeAttribute("aria-activedescendant");
    }
  }

  #take(entry) {
    this.#replace(this.#offer.start, this.#offer.end, entry.text);
    this.offer();
  }

  #replace(start, end, text) {
    this.input.setRangeText(text, start, end, "end");
    this.input.dispatchEvent(new Event("input", { bubbles: true }));
  }

  #fit() {
    const rows = Math.min(6, this.value.split("\n").length + Math.floor(this.value.length / 140));
    this.input.rows = Math.max(1, rows);
  }

  #key(event, submit) {
    const entries = this.#open ? this.#offer.entries.slice(0, OFFERED) : [];
    if ((event.key === "ArrowDown" || event.key === "ArrowUp") && entries.length) {
      event.preventDefault();
      const step = event.key === "ArrowDown" ? 1 : -1;
      const next = this.#at < 0 && step < 0 ? entries.length - 1 : this.#at + step;
      this.#at = (next + entries.length) % entries.length;
      this.#show();
    } else if (event.key === "ArrowDown" || (event.key === " " && event.ctrlKey)) {
      event.preventDefault();
      this.offer();
    } else if ((event.key === "Enter" || event.key === "Tab") && this.#open && this.#at >= 0) {
      event.preventDefault();
      this.#take(entries[this.#at]);
    } else if (event.key === "Enter" && !event.shiftKey) {
      event.preventDefault();
      this.close();
      submit();
    } else if (event.key === "Escape" && this.#open) {
      event.preventDefault();
      this.close();
    } else if (["ArrowLeft", "ArrowRight", "Home", "End"].includes(event.key)) {
      this.close();
    }
  }
}
