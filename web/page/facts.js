// The facts of a collection: what is said of the subject itself as a list, and
// the other items as a table.

import { make, name, visible } from "./dom.js";
import { schemaOf } from "./descriptions.js";
import { exact, fact, typed } from "./format.js";
import { createTable } from "./table.js";

const MANY = 60; // rows from which a table scrolls by itself

// A fact's value, with what it hides to those who point at it.
export function factNode(given, about = {}) {
  const value = typed(given, about);
  const text = fact(value, about);
  if (about.unit === "%" && typeof value === "number") return share(value, text);
  return make("bdi", { title: exact(value, about) }, visible(text));
}

function share(value, text) {
  const width = Math.max(0, Math.min(100, value));
  return make("span", { class: "share" },
    make("svg", { class: "usage", viewBox: "0 0 100 6", preserveAspectRatio: "none",
      "aria-hidden": "true" },
    make("rect", { class: "track", width: 100, height: 6 }),
    make("rect", { class: value >= 95 ? "fill bad" : value >= 90 ? "fill warn" : "fill", width,
      height: 6 })),
    make("span", {}, text));
}

// What the schema says of a fact; facts may be called like members of every object.
export function aboutOf(schema, key) {
  return schema && Object.hasOwn(schema, key) ? schema[key] : {};
}

const isNumber = (about) => ["number", "size", "duration"].includes(about?.type);

const LONG = 24; // characters of a text that is not read at a glance

// The columns of a table of items: the facts named in `first`, shares, all else
// in the order of the schema, and at last long texts. A fact that only repeats
// the names of the items has none. `marked` holds facts that have changed, as
// "item\nfact".
export function factColumns(items, schema, { marked = null, first = [] } = {}) {
  const longest = new Map();
  const news = new Set();
  for (const item of items) {
    for (const [key, value] of Object.entries(item.facts)) {
      longest.set(key, Math.max(longest.get(key) ?? 0, typeof value === "string" ? value.length : 0));
      if (value !== item.name) news.add(key);
    }
  }
  const order = Object.keys(schema);
  const place = (key) => {
    if (first.includes(key)) return first.indexOf(key) - 1e6;
    const about = aboutOf(schema, key);
    const described = Object.hasOwn(schema, key) ? order.indexOf(key) : order.length;
    return described + (about.unit === "%" ? -1000 : longest.get(key) > LONG ? 1000 : 0);
  };
  const keys = [...longest.keys()].filter((key) => news.has(key))
    .sort((left, right) => place(left) - place(right) || (left < right ? -1 : 1));
  return keys.map((key) => {
    const about = aboutOf(schema, key);
    return {
      field: `fact:${key}`,
      title: key,
      hozAlign: isNumber(about) && about.unit !== "%" ? "right" : "left",
      width: widthOf(items, key, about),
      render: (value, row) => {
        const node = factNode(value, about);
        if (marked?.has(`${row.item}\n${key}`)) node.classList.add("fresh");
        return node;
      },
    };
  });
}

const WIDTH = 8; // of a character

// What the longest of the first values needs, within bounds.
function widthOf(items, key, about) {
  let longest = key.length + 3;
  for (const item of items.slice(0, 200)) {
    if (item.facts[key] !== undefined) {
      longest = Math.max(longest, fact(item.facts[key], about).length);
    }
  }
  return Math.round(Math.min(300, Math.max(76, longest * WIDTH + 26 + (about.unit === "%" ? 40 : 0))));
}

export function widthOfNames(names) {
  const longest = Math.max(4, ...names.slice(0, 200).map((one) => one.length));
  return Math.min(240, longest * WIDTH + 26);
}

// Numbers by the schema, so that they are sorted as such.
export function rowOf(item, id, schema) {
  const row = { id, item: item.name };
  for (const [key, value] of Object.entries(item.facts)) {
    row[`fact:${key}`] = typed(value, aboutOf(schema, key));
  }
  return row;
}

function list(item, schema, marked) {
  const names = [...new Set([...Object.keys(schema).filter((key) => Object.hasOwn(item.facts, key)),
    ...Object.keys(item.facts)])];
  return make("dl", { class: "facts" }, names.map((key) => {
    const node = factNode(item.facts[key], aboutOf(schema, key));
    if (marked.has(`${item.name}\n${key}`)) node.classList.add("fresh");
    return make("div", {}, make("dt", { title: aboutOf(schema, key).description }, name(key)),
      make("dd", {}, node));
  }));
}

function attributeTable(attributes) {
  return make("div", { class: "scroll", tabindex: "0", role: "region", "aria-label": "Attributes" },
    make("table", { class: "plain-table" },
      make("thead", {}, make("tr", {}, ["Attribute", "Type", "Unit", "Meaning"]
        .map((text) => make("th", { scope: "col" }, text)))),
      make("tbody", {}, attributes.map((one) => make("tr", {},
        make("td", {}, name(one.name)), make("td", { class: "soft" }, one.type),
        make("td", { class: "soft" }, name(one.unit)), make("td", {}, name(one.description)))))));
}

// Fills a room with a collection; `marked` as for factColumns, `attributes`
// are the filter description, in whose order the facts are shown.
export function collectionFacts(room, collection, { marked, attributes, signal }) {
  const schema = { ...schemaOf(attributes), ...collection.schema };
  const own = [];
  const others = [];
  for (const item of collection.items) {
    const alone = item.name === collection.subject || collection.items.length === 1;
    (alone && own.length === 0 ? own : others).push(item);
  }
  for (const item of own) {
    if (Object.keys(item.facts).length) room.append(list(item, schema, marked));
  }
  for (const item of collection.items) {
    if (item.text !== null && item.text !== undefined) {
      room.append(make("div", { class: "item-text" }, make("h3", {}, name(item.name)),
        make("pre", { class: "mono", tabindex: "0", "aria-label": "Text" },
          item.text.slice(0, 65536))));
    }
    if (item.status) {
      room.append(make("p", { class: `item-status ${["", "warn", "bad"][item.status.severity] ?? ""}` },
        name(item.name), ": ", name(item.status.text)));
    }
  }
  const tabled = others.filter((item) => Object.keys(item.facts).length ||
    item.text === null || item.text === undefined);
  if (tabled.length) {
    const holder = make("div", { class: "fact-table" });
    room.append(holder);
    createTable(holder, {
      label: `Items of ${collection.authority}`,
      columns: [
        { field: "item", title: "Item", frozen: true, width: widthOfNames(tabled.map((item) => item.name)),
          render: (value) => name(value, { class: "item-name" }) },
        ...factColumns(tabled, schema, { marked })],
      rows: tabled.map((item, id) => rowOf(item, id, schema)),
      height: tabled.length > MANY ? "min(70vh, 900px)" : false,
      layout: "fitDataFill",
    }).then((table) => {
      if (signal.aborted) table.destroy();
      else signal.addEventListener("abort", () => table.destroy());
    });
  }
  if (collection.attributes?.length) room.append(attributeTable(collection.attributes));
  if (!collection.items.length && !collection.attributes?.length) {
    room.append(make("p", { class: "empty" }, "There is nothing in it."));
  }
}
