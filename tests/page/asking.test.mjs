// Questions: what is offered while they are written, mistakes, and doing all of
// it with the keyboard alone.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { accessible, closePage, openPage, startBrowser, usable } from "./support/browser.mjs";
import { fleetOf, hostName } from "./support/database.mjs";
import { Fleet } from "./support/programs.mjs";

let fleet;
let browser;

before(async () => {
  fleet = await Fleet.start({ database: fleetOf(60) });
  browser = await startBrowser();
});

after(async () => {
  await browser?.close();
  await fleet?.stop();
});

const ask = (authority, where) => `#/ask?${new URLSearchParams({ authority, where })}`;

test("a mistake in a query is shown where it is", async () => {
  const page = await openPage(browser, fleet, ask("filesystem", "Use > and Kind = local"));
  const mistake = page.locator("#ask-mistake");
  await mistake.waitFor();
  assert.match(await mistake.innerText(), /^Line 1, column 7\s+\S/);
  assert.equal(await page.locator(".query-mirror mark").textContent(), "and");
  const field = page.getByLabel("Items where");
  assert.equal(await field.getAttribute("aria-invalid"), "true");
  const chosen = () => field.evaluate((node) =>
    node.value.slice(node.selectionStart, node.selectionEnd));
  assert.equal(await chosen(), "and");
  const [marked, beginning] = await page.evaluate(() => [
    document.querySelector(".query-mirror mark").getBoundingClientRect().left,
    document.querySelector(".query-field textarea").getBoundingClientRect().left]);
  assert.ok(marked - beginning > 40, "the mark stands under the word");
  await accessible(page);
  await field.fill("Kind = \u{1f600}\u{1f600} and\n  (Use > 5%");
  await field.press("Enter");
  await page.locator("#ask-mistake", { hasText: "Line 2" }).waitFor();
  await field.fill("Use > 5%");
  assert.ok(await mistake.isHidden());
  await page.getByRole("button", { name: "Ask", exact: true }).click();
  await page.waitForSelector(".tabulator-row");
  await closePage(page);
});

test("what could come next is offered from the filter description", async () => {
  const page = await openPage(browser, fleet, "#/ask");
  await page.getByLabel("Authority").selectOption("filesystem");
  await page.locator(".attribute", { hasText: "MountPoint" }).waitFor();
  const field = page.getByLabel("Items where");
  const offered = () => page.locator("[role=option] .mono").allInnerTexts();
  await field.pressSequentially("us");
  await page.waitForSelector("[role=option]");
  assert.deepEqual(await offered(), ["Used", "Use"]);
  await field.press("ArrowDown");
  await field.press("ArrowDown");
  assert.match(await field.getAttribute("aria-activedescendant"), /-1$/);
  await field.press("Enter");
  assert.equal(await field.inputValue(), "Use ");
  assert.ok((await offered()).includes(">="));
  await field.pressSequentially(">= 90% ");
  assert.deepEqual(await offered(), ["and", "or"]);
  await field.press("Escape");
  assert.equal(await page.locator("[role=option]:visible").count(), 0);
  await field.press("Enter");
  await page.waitForSelector(".tabulator-row");
  await closePage(page);
});

test("everything can be done with the keyboard alone", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  const press = (...keys) => keys.reduce((before, key) =>
    before.then(() => page.keyboard.press(key)), Promise.resolve());
  const focused = () => page.evaluate(() => {
    const node = document.activeElement;
    return `${node.tagName} ${node.getAttribute("aria-label") ?? node.textContent.trim().slice(0, 40)}`;
  });
  await press("Tab");
  assert.equal(await focused(), "A Skip to the contents");
  await press("g", "h");
  await usable(page, "hosts");
  // From the title to the table, without a trap on the way.
  await press("/");
  assert.equal(await focused(), "INPUT Search hosts");
  await page.keyboard.type("web");
  await page.waitForFunction(() => / of /.test(document.querySelector(".bar").textContent));
  const reached = [];
  for (let step = 0; step < 20 && !(await focused()).startsWith("DIV Hosts"); step += 1) {
    await press("Tab");
    reached.push(await focused());
  }
  assert.ok(reached.some((one) => one.startsWith("DIV Hosts")), reached.join(", "));
  await press("ArrowDown", "ArrowDown", "End", "Home", "ArrowDown");
  const meant = await page.locator(".tabulator-row.at .host-name").innerText();
  assert.ok(await page.locator(".grid").getAttribute("aria-activedescendant"));
  await press("Enter");
  await usable(page, "host");
  assert.equal(await page.locator("h1").innerText(), meant);
  // The authorities are one stop, left and right of which are the others.
  for (let step = 0; step < 20 && !(await focused()).startsWith("BUTTON host"); step += 1) {
    await press("Tab");
  }
  await press("ArrowDown");
  await page.waitForFunction(() => document.querySelector("#panel h2")?.textContent === "filesystem");
  await press("g", "a");
  await page.waitForSelector(".attribute");
  await press("/");
  await page.keyboard.type("Use > 60%");
  await press("Escape", "Enter");
  await page.waitForSelector(".tabulator-row");
  await press("Escape");
  for (let step = 0; step < 40 && !(await focused()).startsWith("DIV Items"); step += 1) {
    await press("Tab");
  }
  await press("ArrowDown", "Enter");
  await usable(page, "host");
  assert.match(page.url(), /authority=filesystem/);
  await closePage(page);
});

test("a host is reached by its name from everywhere", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  await page.keyboard.press("/");
  await page.keyboard.type(hostName(12).split(".")[0]);
  await page.keyboard.press("Enter");
  await usable(page, "host");
  assert.equal(await page.locator("h1").innerText(), hostName(12));
  await closePage(page);
});
