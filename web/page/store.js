// What the page knows of the fleet, kept for all views: the hosts and the
// gateway's status. Both are fetched anew when events tell that something has
// happened, but no more often than their size allows.

import * as api from "./api.js";
import { link } from "./live.js";

const SHORTEST = 4000; // from one refresh to the next
const LONGEST = 60000; // even without an event
const SHARE = 20; // so many times what the last refresh took

class Store extends EventTarget {
  hosts = null; // null until they are known; then the entries of the API, by key
  status = null;
  problem = null; // why the last refresh failed
}

export const known = new Store();

let timer = null;
let due = Infinity;
let took = 0;
let last = 0;
let running = false;
let again = false;

export function keyOf(host) {
  return `${host.master}/${host.host}`;
}

// Entries that are known already are changed in place: tables hold them.
function takeHosts(list) {
  const before = known.hosts ?? new Map();
  const after = new Map();
  const changed = new Set();
  let members = before.size !== list.length;
  for (const entry of list) {
    const key = keyOf(entry);
    const old = before.get(key);
    if (!old) members = true;
    else if (old.latestTime !== entry.latestTime || old.silent !== entry.silent ||
             old.discoveries !== entry.discoveries ||
             old.firstExpiresTime !== entry.firstExpiresTime ||
             old.authorities.length !== entry.authorities.length) changed.add(key);
    entry.key = key;
    after.set(key, old ? Object.assign(old, entry) : entry);
  }
  known.hosts = after;
  return { members, changed };
}

async function refresh() {
  if (running) {
    again = true;
    return;
  }
  running = true;
  clearTimeout(timer);
  due = Infinity;
  const began = performance.now();
  try {
    const [status, answer] = await Promise.all([api.json("status"), api.json("hosts")]);
    known.status = status;
    known.problem = null;
    link.setMasters(status.masters);
    known.dispatchEvent(new CustomEvent("hosts", { detail: takeHosts(answer.hosts) }));
  } catch (error) {
    known.problem = error;
    known.dispatchEvent(new CustomEvent("problem", { detail: error }));
  }
  took = performance.now() - began;
  last = Date.now();
  running = false;
  plan(again ? SHORTEST : LONGEST);
  again = false;
}

function plan(milliseconds) {
  const at = Math.max(Date.now() + milliseconds, last + Math.max(SHORTEST, SHARE * took));
  if (at >= due) return;
  due = at;
  clearTimeout(timer);
  timer = setTimeout(refresh, at - Date.now());
}

// The key of a host of that name, or of the only one that begins so; null when
// there is none.
export function findHost(text) {
  const wanted = text.toLowerCase();
  let only = null;
  let several = false;
  for (const { host } of known.hosts?.values() ?? []) {
    const lower = host.toLowerCase();
    if (lower === wanted) return host;
    if (lower.startsWith(wanted)) {
      several ||= only !== null && only !== host;
      only ??= host;
    }
  }
  return several ? null : only;
}

// The authorities of the whole fleet, sorted.
export function authorities() {
  const all = new Set();
  for (const host of known.hosts?.values() ?? []) {
    for (const authority of host.authorities) all.add(authority);
  }
  return [...all].sort();
}

// Calls back at once when the hosts are known, and whenever they change, until
// the signal; `detail` is { members, changed }, null the first time.
export function onHosts(signal, callback) {
  known.addEventListener("hosts", (event) => callback(event.detail), { signal });
  if (known.hosts) callback(null);
}

export function onProblem(signal, callback) {
  known.addEventListener("problem", (event) => callback(event.detail), { signal });
  if (known.problem) callback(known.problem);
}

export function start() {
  link.start();
  link.addEventListener("record", () => plan(1000));
  link.addEventListener("reset", () => plan(0));
  refresh();
}
