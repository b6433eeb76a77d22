// The modules of the page that do without a browser.

import assert from "node:assert/strict";
import fs from "node:fs";
import { test } from "node:test";

import { changesBetween } from "../../web/page/changes.js";
import { csv, jsonText } from "../../web/page/export.js";
import { age, clock, compare, count, exact, fact, shortClock, size, span, typed, until }
  from "../../web/page/format.js";
import { completions, indexOf, mistakeRange, tokens, written } from "../../web/page/query.js";
import { bucketOf, byAge } from "../../web/page/reports.js";

test("sizes have three digits and the unit that fits", () => {
  assert.deepEqual([0, 1, 1023, 1024, 10239, 1047552, 270553174016, 2 ** 63].map(size),
    ["0 B", "1 B", "1023 B", "1.00 KiB", "10.0 KiB", "1023 KiB", "252 GiB", "8.00 EiB"]);
  assert.equal(size(1048500), "1.00 MiB"); // and not "1024 KiB"
  assert.equal(size(-2048), "−2.00 KiB");
});

test("spans and ages name the two largest units", () => {
  assert.deepEqual([0, 59.9, 60, 3599, 3600, 11100, 90000, 10 * 86400 + 7200].map(span),
    ["0 s", "59 s", "1 min", "59 min", "1 h", "3 h 5 min", "1 d 1 h", "10 d"]);
  assert.deepEqual([3649, 3650, 7305].map((days) => span(days * 86400)),
    ["3,649 d", "9 years", "20 years"]);
  const now = Date.parse("2026-11-20T10:15:00Z");
  assert.equal(age("2026-11-20T10:14:18Z", now), "42 s");
  assert.equal(age(null, now), "–");
  assert.equal(until("2026-11-20T10:21:15Z", now), "in 6 min");
  assert.equal(until("2026-11-20T10:15:00Z", now), "overdue");
  assert.equal(until("9999-12-31T23:59:59Z", now), "never");
});

test("a time is the reader's own, and of today without the day", () => {
  const [morning, evening, next] = [[0, 2, 8, 5, 9], [0, 2, 20, 15, 0], [0, 3, 8, 5, 9]]
    .map((parts) => new Date(2026, ...parts).getTime());
  assert.equal(clock(morning), "2026-01-02 08:05:09");
  assert.equal(clock(new Date(evening).toISOString()), "2026-01-02 20:15:00");
  assert.equal(clock("soon"), "–");
  assert.equal(shortClock(morning, evening), "08:05:09");
  assert.equal(shortClock(morning, next), "2026-01-02 08:05:09");
});

test("one is counted as one, and none as several", () => {
  assert.deepEqual([0, 1, 2, 1200].map((each) => count(each, "host")),
    ["0 hosts", "1 host", "2 hosts", "1,200 hosts"]);
});

test("facts are shown by their kind, and what that hides is kept", () => {
  assert.equal(fact(1999421571072, { type: "size" }), "1.82 TiB");
  assert.equal(exact(1999421571072, { type: "size" }), "1,999,421,571,072 bytes");
  assert.equal(fact("41%", { type: "number", unit: "%" }), "41 %");
  assert.equal(fact(true), "yes");
  assert.equal(fact(["a", 2]), "a, 2");
  assert.equal(fact("0x10", { type: "number" }), "0x10");
  assert.equal(typed("12", { type: "text" }), "12");
  assert.equal(fact("90", { type: "duration" }), "1 min");
  assert.equal(exact("5400", { type: "duration" }), "5,400 seconds");
  assert.equal(fact(5, { type: "number", unit: "packets" }), "5 packets");
  const time = "2026-11-20T10:15:00Z";
  assert.equal(fact(time), clock(time));
  assert.equal(exact(time), time);
  assert.equal(exact("text"), null);
});

test("names are ordered as people count, and nothing comes last", () => {
  assert.deepEqual(["web10", "", "web2", "Web1", null].sort(compare),
    ["Web1", "web2", "web10", "", null]);
});

const ATTRIBUTES = [{ name: "Size", type: "size", unit: "bytes", description: "" },
  { name: "Mount Point", type: "text", unit: "", description: "" },
  { name: "ReadOnly", type: "boolean", unit: "", description: "" }];
const offered = (query, values) =>
  completions(query, query.length, ATTRIBUTES, values).entries.map((one) => one.label);

test("what could come next follows from what stands before it", () => {
  assert.deepEqual(offered(""), ["Size", "Mount Point", "ReadOnly", "not"]);
  assert.deepEqual(offered("si"), ["Size"]);
  assert.deepEqual(offered("not "), ["Size", "Mount Point", "ReadOnly"]);
  assert.ok(offered("Size ").includes(">="));
  assert.deepEqual(offered("ReadOnly = "), ["true", "false"]);
  assert.deepEqual(offered("ReadOnly = true "), ["and", "or"]);
  assert.deepEqual(offered("(Size > 10G or "), ["Size", "Mount Point", "ReadOnly", "not"]);
  assert.deepEqual(offered('"Mount Point" = /s', new Map([["Mount Point", ["/", "/srv"]]])), ["/srv"]);
  const completion = completions('"Mou', 4, ATTRIBUTES);
  assert.deepEqual([completion.start, completion.end, completion.entries[0].text],
    [0, 4, '"Mount Point" ']);
  assert.equal(completions("Size > ", 7, ATTRIBUTES).hint, "10G, 512M");
  assert.deepEqual(offered("(Size > 10G) "), ["and", "or"]);
  assert.deepEqual(offered("NOT "), ["Size", "Mount Point", "ReadOnly"]);
  assert.deepEqual(offered("Size like ", new Map([["Size", [7]]])), ["7"]);
});

test("what only contains what was written comes behind what begins so", () => {
  assert.deepEqual(offered("o"), ["Mount Point", "ReadOnly", "not"]);
  assert.deepEqual(offered("t"), ["Mount Point", "not"]);
  assert.deepEqual(offered("n"), ["not", "Mount Point", "ReadOnly"]);
});

test("comparators that suit the kind of an attribute come first", () => {
  assert.equal(offered('"Mount Point" ')[2], "like");
  assert.equal(offered("Size ").at(-1), "like");
});

test("a choice replaces the word that the caret is in, and no text that is whole", () => {
  const within = completions("Siz > 5", 2, ATTRIBUTES);
  assert.deepEqual([within.start, within.end], [0, 3]);
  const behind = completions('Kind = "a b"', 12, ATTRIBUTES);
  assert.deepEqual([behind.start, behind.end], [12, 12]);
});

test("texts are quoted where the language wants it", () => {
  assert.deepEqual(["/srv", "two words", "and", 'a"b', "c++"].map(written),
    ['"/srv"', '"two words"', '"and"', '"a""b"', '"c++"']);
  assert.equal(written("MountPoint"), "MountPoint");
  assert.deepEqual(tokens("a='it''s' and not(b<=2)").map((one) => one.kind),
    ["word", "comparator", "quoted", "keyword", "keyword", "(", "word", "comparator", "word", ")"]);
  assert.equal(tokens("'it''s'")[0].value, "it's");
});

test("a place in bytes is found in the text that the browser has", () => {
  const query = "Kind = \u{1f600}\u{1f600} x\n  Use > )";
  assert.equal(query[indexOf(query, { line: 1, column: 17 })], "x");
  assert.equal(query[indexOf(query, { line: 2, column: 9 })], ")");
  assert.equal(indexOf(query, { line: 9, column: 9 }), query.length);
  assert.equal(indexOf("äöü€€€€x", { line: 1, column: 19 }), 7);
  assert.deepEqual(mistakeRange("Use > and", 6), { start: 6, end: 9 });
  assert.deepEqual(mistakeRange("Use >", 5), { start: 5, end: 6 });
});

const collection = (...items) => ({ authority: "probe", items });
const item = (name, facts) => ({ name, facts, text: null });
const between = (before, after) =>
  changesBetween(new Map([["k", before]]), new Map([["k", after]]));

test("changes are those of facts, items and discoveries", () => {
  assert.deepEqual(between(collection(item("a", { x: 1, y: [1, 2] })),
    collection(item("a", { x: 1, y: [1, 2] }))), []);
  const changed = between(collection(item("a", { x: 1, gone: "g" }), item("b", {})),
    collection(item("a", { x: 2, come: "c" }), item("c", {})));
  assert.deepEqual(changed.map(({ item: of, fact: named, old, now, change }) =>
    [of, named, old, now, change]), [
    ["a", "x", 1, 2, "changed"], ["a", "come", null, "c", "changed"],
    ["a", "gone", "g", null, "changed"], ["c", null, null, null, "added"],
    ["b", null, null, null, "gone"]]);
  assert.deepEqual(between(collection({ ...item("a", {}), text: "was" }),
    collection({ ...item("a", {}), text: "is" })).map((one) => [one.fact, one.old, one.now]),
  [["(text)", "was", "is"]]);
  assert.equal(changesBetween(new Map(), new Map([["k", collection()]]))[0].change, "added");
  assert.equal(changesBetween(new Map([["k", collection()]]), new Map())[0].change, "gone");
});

test("items of one name are told apart by their order", () => {
  const two = collection(item("/mnt", { x: 1 }), item("/mnt", { x: 2 }));
  assert.deepEqual(between(two, collection(item("/mnt", { x: 1 }), item("/mnt", { x: 3 })))
    .map((one) => [one.old, one.now]), [[2, 3]]);
});

test("comma-separated values keep what they are given, and calculate nothing", () => {
  const items = [{ subject: "web,7", authority: "a", name: 'say "x"',
    facts: { n: -3, t: "-1+1", u: "=1", lines: "a\nb", many: ["p", "q"] } },
  { subject: "db", authority: "a", name: "@x", facts: {} }];
  assert.equal(csv(items, ["n", "t", "u", "lines", "many", "toString"]), [
    "subject,authority,item,n,t,u,lines,many,toString",
    '"web,7",a,"say ""x""",-3,\'-1+1,\'=1,"a\nb",p; q,',
    "db,a,'@x,,,,,,", ""].join("\r\n"));
  assert.deepEqual(JSON.parse(jsonText(items)), items);
  const odd = { t: "\tx", r: "a\rb", minus: "-1.5", plus: "+1" };
  assert.equal(csv([{ subject: "s", authority: "a", name: "n", facts: odd }], Object.keys(odd))
    .split("\r\n")[1], 's,a,n,\'\tx,"a\rb",-1.5,\'+1');
});

test("of an answer that breaks off nothing is lost", async (context) => {
  const { document, fetch } = globalThis;
  context.after(() => Object.assign(globalThis, { document, fetch }));
  const record = { subject: "web7", authority: "a", type: 2, master: "atlas" };
  const own = [{ name: "x", facts: { n: 1 } }, { name: "y", facts: {} }];
  const lines = own.map((one) => `${JSON.stringify({ ...record, ...one })}\n`);
  let breaks = true;
  const whole = [{ ...record, items: own, schema: {}, attributes: [], complete: true },
    { ...record, subject: "web8", items: [], schema: {}, attributes: [], complete: false }];
  globalThis.document = { baseURI: "http://localhost/" };
  globalThis.fetch = async (url, { headers }) => new Response(headers.accept === "application/json"
    ? JSON.stringify(whole)
    : new ReadableStream({ start: (controller) => {
      for (const line of lines) controller.enqueue(new TextEncoder().encode(line));
      if (breaks) controller.error(new TypeError("network error"));
      else controller.close();
    } }));
  const { Incomplete, items } = await import("../../web/page/api.js");
  const read = async () => {
    const found = [];
    for await (const batch of items({ authority: "a" })) found.push(...batch);
    return found;
  };
  const all = own.map((one) => ({ ...record, ...one }));
  await assert.rejects(read, (error) => {
    assert.ok(error instanceof Incomplete, error.stack);
    assert.deepEqual(error.items, all);
    return true;
  });
  breaks = false;
  assert.deepEqual(await read(), all);
});

test("hosts that have changed are told, also those that only fell silent", async (context) => {
  const { document, fetch, EventSource } = globalThis;
  context.after(() => Object.assign(globalThis, { document, fetch, EventSource }));
  context.mock.timers.enable({ apis: ["setTimeout", "Date"] });
  const host = (name, more = {}) => ({ master: "atlas", host: name, discoveries: 1, silent: false,
    latestTime: "2026-11-20T10:15:00Z", firstExpiresTime: null, authorities: ["host"], ...more });
  let hosts = ["a", "b", "c"].map((name) => host(name));
  globalThis.document = { baseURI: "http://localhost/", addEventListener: () => {} };
  globalThis.EventSource = class extends EventTarget { close() {} };
  globalThis.fetch = async (url) =>
    Response.json(url.pathname.endsWith("status") ? { masters: [] } : { hosts });
  const { known, start } = await import("../../web/page/store.js");
  const { link } = await import("../../web/page/live.js");
  const told = () => new Promise((resolve) => {
    known.addEventListener("hosts", (event) => resolve(event.detail), { once: true });
  });
  const first = told();
  start();
  assert.equal((await first).members, true);
  const after = async (change) => {
    hosts = hosts.map((one) => ({ ...one }));
    change();
    const next = told();
    await new Promise((resolve) => { setImmediate(resolve); });
    link.dispatchEvent(new Event("record"));
    context.mock.timers.tick(20000);
    return next;
  };
  assert.deepEqual(await after(() => {}), { members: false, changed: new Set() });
  assert.deepEqual((await after(() => { hosts[1].silent = true; })).changed, new Set(["atlas/b"]));
  assert.deepEqual((await after(() => { hosts[2].discoveries = 2; })).changed, new Set(["atlas/c"]));
  assert.equal((await after(() => { hosts.pop(); })).members, true);
  assert.deepEqual([...known.hosts.keys()], ["atlas/a", "atlas/b"]);
});

test("hosts are counted by the age of what they told last", () => {
  const now = Date.parse("2026-11-20T10:15:00Z");
  const told = (seconds) => ({ latestTime: new Date(now - seconds * 1000).toISOString() });
  assert.equal(bucketOf(told(59), now).id, "1m");
  assert.equal(bucketOf(told(60), now).id, "5m");
  assert.equal(bucketOf(told(1e9), now).id, "old");
  assert.equal(bucketOf({ latestTime: null }, now), null);
  assert.deepEqual(byAge([told(1), told(2), told(90000), { latestTime: null }], now)
    .map((one) => one.hosts), [2, 0, 0, 0, 0, 0, 1]);
});

test("all modules are asked for at once, and nothing of another place", () => {
  const folder = new URL("../../web/page/", import.meta.url);
  const index = fs.readFileSync(new URL("index.html", folder), "utf8");
  const modules = fs.readdirSync(folder).filter((name) => name.endsWith(".js"));
  const asked = [...index.matchAll(/(?:href|src)="page\/([\w-]+\.js)"/g)].map((match) => match[1]);
  assert.deepEqual(asked.sort(), modules.sort());
  for (const name of fs.readdirSync(folder).filter((one) => /\.(js|css|html)$/.test(one))) {
    const text = fs.readFileSync(new URL(name, folder), "utf8");
    assert.doesNotMatch(text.replaceAll("http://www.w3.org/2000/svg", ""), /https?:|innerHTML|cssText/,
      name);
  }
});
