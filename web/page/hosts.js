// All hosts in one table.

import { ageOf } from "./ages.js";
import { announce, make, name } from "./dom.js";
import { count, moment } from "./format.js";
import { link } from "./live.js";
import { known, onHosts, onProblem } from "./store.js";
import { createTable, load } from "./table.js";
import { bucketOf, BUCKETS } from "./reports.js";

export const hostAddress = (host) => `#/host/${encodeURIComponent(host)}`;

// Stored beside what people ask about: a host's mark, and descriptions.
const ASIDE = /^machine\.|-filter$/;

function columns() {
  const timed = (form) => ({
    render: (value) => ageOf(value, form),
    sorter: (left, right) => (moment(left) || 0) - (moment(right) || 0),
    hozAlign: "right",
    width: 120,
  });
  return [
    {
      field: "host", title: "Host", minWidth: 200, widthGrow: 3,
      render: (value) => make("a", { href: hostAddress(value), tabindex: "-1", class: "host-name" },
        name(value)),
    },
    { field: "master", title: "Master", width: 150, visible: link.masters.length > 1,
      render: (value) => name(value) },
    {
      field: "silent", title: "State", width: 96, headerSortStartingDir: "desc",
      render: (value) => (value ? make("span", { class: "badge bad" }, "silent") : "reporting"),
      sorter: (left, right) => Number(left) - Number(right),
      cssClass: "soft",
    },
    { field: "latestTime", title: "Latest report", ...timed("age") },
    { field: "firstExpiresTime", title: "First expires", ...timed("until") },
    { field: "discoveries", title: "Discoveries", width: 112, hozAlign: "right" },
    {
      field: "authorities", title: "Authorities", minWidth: 160, widthGrow: 4,
      render: (value) => name(value.filter((one) => !ASIDE.test(one)).join(", ")),
      sorter: (left, right) => left.length - right.length,
      cssClass: "soft",
    },
  ];
}

// Every word must be in the name or in that of an authority.
function matches(words, host) {
  const text = `${host.host}\n${host.authorities.join("\n")}`.toLowerCase();
  return words.every((word) => text.includes(word));
}

function columnMenu(table) {
  const list = make("div", { class: "menu-list", role: "group", "aria-label": "Columns" });
  for (const column of table.getColumns()) {
    if (column.getField() === "host") continue;
    const box = make("input", { type: "checkbox", onchange: () => column.toggle() });
    box.checked = column.isVisible();
    list.append(make("label", {}, box, column.getDefinition().title));
  }
  const menu = make("details", { class: "menu" }, make("summary", {}, "Columns"), list);
  menu.addEventListener("keydown", (event) => {
    if (event.key !== "Escape" || !menu.open) return;
    menu.open = false;
    menu.querySelector("summary").focus();
  });
  menu.addEventListener("focusout", (event) => {
    if (event.relatedTarget && !menu.contains(event.relatedTarget)) menu.open = false;
  });
  return menu;
}

export async function hostsView(room, { parameters, signal }) {
  load();
  const search = make("input", {
    type: "search", placeholder: "Search name or authority", "aria-label": "Search hosts",
    "data-search": true, spellcheck: "false", autocomplete: "off", maxlength: "4096",
  });
  search.value = parameters.get("search") ?? "";
  const only = make("select", { "aria-label": "Which hosts" },
    make("option", { value: "" }, "All hosts"),
    make("option", { value: "silent" }, "Silent hosts"),
    BUCKETS.map((bucket) => make("option", { value: bucket.id }, `Latest report ${bucket.words}`)));
  only.value = parameters.get("only") ?? "";
  if (only.selectedIndex < 0) only.value = "";
  const total = make("span", { class: "soft", "aria-live": "polite" });
  const menuPlace = make("div");
  const holder = make("div", { class: "table-room" },
    make("div", { class: "empty" }, "Fetching the hosts …"));
  room.append(
    make("h1", {}, "Hosts"),
    make("div", { class: "bar" }, search, make("div", { class: "select" }, only), total,
      make("div", { class: "grow" }), menuPlace),
    holder);

  let table = null;
  let timer = null;
  const filter = () => {
    const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
    const now = Date.now();
    const accept = (host) => matches(words, host) && (only.value === "" ||
      (only.value === "silent" ? host.silent : bucketOf(host, now)?.id === only.value));
    if (words.length || only.value) table.setFilter(accept);
    else table.clearFilter();
    const shown = table.getDataCount("active");
    total.textContent = shown === known.hosts.size ? count(shown, "host")
      : `${count(shown, "host")} of ${count(known.hosts.size, "")}`.trim();
    const query = new URLSearchParams();
    if (search.value) query.set("search", search.value);
    if (only.value) query.set("only", only.value);
    history.replaceState(null, "", `#/hosts${query.size ? `?${query}` : ""}`);
  };
  search.addEventListener("input", () => {
    clearTimeout(timer);
    timer = setTimeout(() => table && !signal.aborted && filter(), 80);
  });
  only.addEventListener("change", () => table && filter());
  search.addEventListener("keydown", (event) => {
    if (event.key !== "ArrowDown") return;
    event.preventDefault();
    holder.querySelector(".grid")?.focus();
  });

  let building = null;
  onHosts(signal, async (detail) => {
    if (building === null) {
      building = createTable(holder, {
        label: "Hosts",
        columns: columns(),
        rows: [...known.hosts.values()],
        index: "key",
        open: (host) => { location.hash = hostAddress(host.host); },
        persist: "hosts",
        sort: [{ column: "host", dir: "asc" }],
        empty: "No host matches",
      });
      const made = await building.catch((error) => {
        holder.replaceChildren(make("p", { class: "problem", role: "alert" },
          `The table cannot be shown: ${error.message}`));
        return null;
      });
      if (made === null) return;
      if (signal.aborted) {
        made.destroy();
        return;
      }
      table = made;
      menuPlace.append(columnMenu(table));
      filter();
      performance.mark("hosts-usable");
      announce(total.textContent);
      signal.addEventListener("abort", () => table.destroy());
    } else if (table && detail) {
      if (detail.members) {
        await table.replaceData([...known.hosts.values()]);
        filter();
      } else {
        for (const row of table.getRows("visible")) {
          if (detail.changed.has(row.getData().key)) row.reformat();
        }
      }
    }
  });
  onProblem(signal, (problem) => {
    if (building === null) {
      holder.replaceChildren(make("p", { class: "problem", role: "alert" }, problem.message));
    }
  });
  return "Hosts";
}
