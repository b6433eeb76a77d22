// Names and values that want to be something else than text.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { closePage, openPage, startBrowser, usable } from "./support/browser.mjs";
import { describe, store } from "./support/database.mjs";
import { Fleet, payload, until } from "./support/programs.mjs";

const SCRIPT = '<script>document.title="taken"</script><img src=x onerror=alert(1)>';
const BACKWARDS = "web\u202egnp.exe\u200f\u2066";
const LINES = "first\nsecond\r\nthird";
const LONG = `<b>${"x".repeat(1017)}</b>`.slice(0, 1024); // the longest that a master stores
const LONGEST = `${"<i>é</i>".repeat(450)}`.slice(0, 3640); // 4,096 bytes or a little less
const MEMBERS = "__proto__";
const DOTS = "..";

let fleet;
let browser;

before(async () => {
  fleet = await Fleet.start({ database: (directory) => {
    // Longer than any that a master takes from a writer: somebody wrote the files.
    store(directory, { subject: LONGEST, authority: "probe", text: payload("probe", { a: { b: 1 } }),
      file: `${"x".repeat(60)}~${"0".repeat(32)}` });
    store(directory, { subject: "quiet", authority: "service",
      text: payload("service", { quiet: { Kind: "service" }, [SCRIPT.slice(0, 200)]: { Kind: "push",
        LastResult: SCRIPT } }) });
    describe(directory, "quiet", "probe", [["constructor", "text", "&lt;i&gt;", "&lt;img src=x&gt;"],
      ["Value", "size", "bytes", "A size"]]);
  } });
  for (const subject of [SCRIPT, BACKWARDS, LINES, LONG, MEMBERS, DOTS]) {
    await fleet.report(subject, "probe", {
      [subject]: { Value: SCRIPT, constructor: "=cmd|' /C calc'!A0" },
      [LONGEST]: { Value: LONGEST, hasOwnProperty: BACKWARDS, [MEMBERS]: LINES },
      [`${LINES} again`]: { Value: "-1+1" } });
  }
  await fleet.report("named", SCRIPT.slice(0, 200), { one: { Value: 1 } });
  await fleet.knows("named");
  browser = await startBrowser();
});

after(async () => {
  await browser?.close();
  await fleet?.stop();
});

// Nothing of the names became part of the page.
async function harmless(page) {
  const found = await page.evaluate(() => ({
    scripts: document.querySelectorAll("main script").length,
    images: document.querySelectorAll("main img, main i, main b").length,
    title: document.title,
    breaks: [...document.querySelectorAll(".host-name, .tabulator-cell, h1 bdi")]
      .filter((node) => /[\n\r\u202a-\u202e\u2066-\u2069\u200f]/.test(node.textContent)).length,
    over: document.documentElement.scrollWidth - document.documentElement.clientWidth,
  }));
  assert.deepEqual({ ...found, title: "" }, { scripts: 0, images: 0, title: "", breaks: 0, over: 0 });
  assert.notEqual(found.title, "taken");
}

test("hostile names stay text in Fleet and Hosts", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  await page.waitForFunction(() => /as of/.test(document.querySelector(".look .note")?.textContent));
  await page.waitForFunction(() => [...document.querySelectorAll(".look .note")]
    .every((one) => /as of/.test(one.textContent)));
  await harmless(page);
  assert.ok(await page.getByText("<script>").count() > 0);
  await page.goto(`${fleet.address}#/hosts`);
  await usable(page, "hosts");
  await harmless(page);
  // While the list is renewed, rows are missing.
  let names = [];
  await until("all are there", async () => {
    names = await page.locator(".tabulator-row .host-name").allInnerTexts();
    return [SCRIPT, LONGEST, MEMBERS].every((name) => names.includes(name)) &&
      names.some((name) => name.startsWith("web[U+202E]gnp.exe"));
  }).catch((error) => assert.fail(
    [error.message, ...names.map((name) => name.slice(0, 80))].join("\n")));
  await closePage(page);
});

for (const [what, subject] of Object.entries({ "a script": SCRIPT, "right-to-left marks": BACKWARDS,
  "line ends": LINES.replace("\r", "%0D").replaceAll("\n", "%0A"), "a long name": LONG,
  "a member of every object": MEMBERS })) {
  test(`a host whose name is ${what} has a page like any other`, async () => {
    const page = await openPage(browser, fleet, "#/hosts");
    await usable(page, "hosts");
    const known = (await fleet.get("hosts")).hosts.find((host) => host.host === subject);
    assert.ok(known, `the master has no host of that name: ${what}`);
    await page.goto(`${fleet.address}#/host/${encodeURIComponent(subject)}`);
    await usable(page, "host");
    await page.waitForSelector(".fact-table .tabulator-row");
    await harmless(page);
    assert.equal(await page.locator("#panel .problem").count(), 0);
    await page.getByRole("button", { name: "Payload" }).click();
    await page.waitForSelector(".payload");
    const shown = await page.locator(".payload").textContent();
    assert.ok(shown.includes("<Value>&lt;script&gt;"), shown.slice(0, 300));
    await harmless(page);
    await closePage(page);
  });
}

// Browsers take ".." out of every address, encoded or not.
test("a host whose name no browser can ask for is told as that", async () => {
  const page = await openPage(browser, fleet, "#/hosts");
  await usable(page, "hosts");
  await page.locator(".host-name").getByText(DOTS, { exact: true }).click();
  await page.getByText("No browser can ask for something of this name").waitFor();
  await closePage(page);
});

test("a host that is not there, and one that cannot be read, are told", async () => {
  const page = await openPage(browser, fleet, "#/host/nobody%20at%20all");
  await page.getByText("No master knows a host of this name.").waitFor();
  await page.goto(`${fleet.address}#/host/${encodeURIComponent(LONGEST)}`);
  await page.waitForSelector("#panel .problem");
  await harmless(page);
  await closePage(page);
});

test("hostile answers stay text in Ask, and calculate nothing in a spreadsheet", async () => {
  const page = await openPage(browser, fleet, `#/ask?${new URLSearchParams({ authority: "probe" })}`);
  // The subject that cannot be read takes nothing from the others.
  await page.getByText(/^18 items on 6 hosts, though not all could be read/).waitFor();
  await page.waitForSelector(".tabulator-row");
  await harmless(page);
  await page.getByLabel("Items where").focus();
  await page.getByLabel("Items where").press("ArrowDown");
  await page.waitForSelector("[role=option]");
  await harmless(page);
  const [file] = await Promise.all([page.waitForEvent("download"),
    page.getByRole("button", { name: "Save as CSV" }).click()]);
  const stream = await file.createReadStream();
  let text = "";
  for await (const piece of stream) text += piece;
  assert.ok(text.includes("'=cmd|"), text.slice(0, 300));
  assert.doesNotMatch(text, /(^|,)"?[=+@-]\D/m);
  await page.goto(`${fleet.address}#/ask?${new URLSearchParams({ authority: SCRIPT.slice(0, 200) })}`);
  await page.waitForSelector(".tabulator-row");
  await harmless(page);
  await closePage(page);
});
