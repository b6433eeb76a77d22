// A table of many rows, of which only those in sight are in the document.
//
// The library draws; what stands in cells and titles is made by dom.js. The
// grid keeps the focus itself and tells which row is meant, so that the keys
// go on working when that row is scrolled away.

import { make, visible } from "./dom.js";
import { compare } from "./format.js";

let library = null;

// Loaded when a view with tables is opened, beside what will be in them.
export function load() {
  library ??= import("./vendor/tabulator.js");
  return library;
}

function columnOf({ field, title, render, sorter, ...rest }) {
  return {
    field,
    title: visible(title),
    titleFormatter: () => make("button", { type: "button",
      class: rest.hozAlign === "right" ? "column-title right" : "column-title" }, visible(title)),
    formatter: (cell) => {
      const row = cell.getRow().getData();
      const content = render ? render(row[field], row) : row[field];
      if (content instanceof Node) return content;
      return document.createTextNode(content === null || content === undefined ? ""
        : visible(content));
    },
    sorter: sorter ?? ((left, right) => compare(left, right)),
    headerSortTristate: false,
    minWidth: 70,
    ...rest,
  };
}

// options: `label`, `columns` ({ field, title, render(value, row), and what the
// library knows of columns }), `rows`, `index` (the field that tells rows
// apart), `open(row)`, `persist` (the name under which columns are remembered),
// `sort` ([{ column, dir }]), `empty` (text when there is no row), `height`.
export async function createTable(holder, options) {
  const { TabulatorFull } = await load();
  const element = make("div", { class: "grid" });
  holder.replaceChildren(element);
  const table = new TabulatorFull(element, {
    data: options.rows,
    columns: options.columns.map(columnOf),
    index: options.index ?? "id",
    height: options.height ?? "100%",
    rowHeight: 30,
    renderVerticalBuffer: 900,
    layout: options.layout ?? "fitColumns",
    nestedFieldSeparator: false,
    dataTree: false,
    movableColumns: true,
    resizableColumnFit: false,
    placeholder: make("div", { class: "empty" }, options.empty ?? "Nothing"),
    initialSort: options.sort ?? [],
    persistence: options.persist ? { sort: true, columns: ["width", "visible"] } : false,
    persistenceID: options.persist ?? "",
    persistenceMode: "local",
    rowFormatter: (row) => row.getElement().setAttribute("tabindex", "-1"),
  });
  await new Promise((resolve) => {
    table.on("tableBuilt", resolve);
  });
  if (options.open) table.on("rowClick", (event, row) => {
    if (!event.defaultPrevented && !getSelection().toString()) options.open(row.getData());
  });
  addKeys(table, element, options);
  return table;
}

function addKeys(table, element, options) {
  element.setAttribute("aria-label", options.label);
  element.setAttribute("tabindex", "0");
  const rowId = `${element.querySelector(".tabulator-table").id}-row`;
  element.querySelector(".tabulator-tableholder").removeAttribute("tabindex");
  let position = 0; // of the row that is meant, counted from 1; 0 for none

  const mark = () => {
    element.querySelector(".tabulator-row.at")?.classList.remove("at");
    element.querySelector(`#${rowId}`)?.removeAttribute("id");
    element.removeAttribute("aria-activedescendant");
    if (position === 0) return null;
    const row = table.getRowFromPosition(position);
    const node = row ? row.getElement() : null;
    if (!node?.isConnected) return row;
    node.classList.add("at");
    node.id = rowId;
    element.setAttribute("aria-activedescendant", rowId);
    return row;
  };
  const tell = () => element.setAttribute("aria-rowcount", table.getDataCount("active") + 1);
  const restart = () => {
    position = 0;
    mark();
  };
  table.on("dataFiltered", () => queueMicrotask(() => {
    restart();
    tell();
  }));
  table.on("dataSorted", () => queueMicrotask(restart));
  table.on("dataProcessed", tell);
  table.on("renderComplete", mark);
  table.on("scrollVertical", () => requestAnimationFrame(mark));
  tell();

  element.addEventListener("keydown", async (event) => {
    if (event.target.closest("button, a")) return;
    const count = table.getDataCount("active");
    const page = Math.max(1, Math.floor(element.clientHeight / 30) - 2);
    const steps = {
      ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -count, End: count,
    };
    if (event.key in steps && count > 0) {
      event.preventDefault();
      position = Math.min(count, Math.max(1, position + steps[event.key]));
      const row = table.getRowFromPosition(position);
      const where = row.getElement();
      const box = element.querySelector(".tabulator-tableholder").getBoundingClientRect();
      const place = where.getBoundingClientRect();
      if (!where.isConnected || place.top < box.top || place.bottom > box.bottom) {
        await table.scrollToRow(row, steps[event.key] > 0 ? "bottom" : "top", true);
      }
      mark();
    } else if (event.key === "Enter" && position > 0 && options.open) {
      event.preventDefault();
      options.open(table.getRowFromPosition(position).getData());
    }
  });
}
