// Debian's browser, and what every test of the page wants of it.

import assert from "node:assert/strict";
import { createRequire } from "node:module";
import path from "node:path";

import { PATIENCE } from "./programs.mjs";

const require = createRequire(path.join(process.env.TQ_NODE_MODULES, "here.js"));
const { chromium } = require("playwright-core");
const axe = require("axe-core");

export async function startBrowser() {
  return chromium.launch({
    executablePath: process.env.TQ_CHROMIUM ?? "/usr/bin/chromium",
    timeout: PATIENCE,
    // Root, as in a build service, has no sandbox; what is shown is this test's own.
    args: ["--no-sandbox", "--disable-dev-shm-usage"],
  });
}

// A page in a fresh profile. What it must never do is remembered in `faults`:
// errors, refusals of the content security policy, requests to other places.
export async function openPage(browser, fleet, hash, options = {}) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 },
    acceptDownloads: true, ...options });
  context.setDefaultTimeout(PATIENCE);
  const page = await context.newPage();
  const faults = [];
  page.faults = faults;
  // An answer of 400 or 404, and a gateway that is gone, are part of some tests
  // and are told there by the page.
  const told = /Failed to load resource|net::ERR_/;
  page.on("console", (message) => {
    if (["error", "warning"].includes(message.type()) && !told.test(message.text())) {
      faults.push(message.text());
    }
  });
  page.on("pageerror", (error) => faults.push(error.stack));
  page.on("dialog", (dialog) => {
    faults.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  page.on("request", (request) => {
    const url = request.url();
    if (!url.startsWith(fleet.address) && !/^(blob|data):/.test(url)) faults.push(`asked for ${url}`);
  });
  const answer = await page.goto(`${fleet.address}${hash}`);
  page.policy = answer.headers()["content-security-policy"] ?? "";
  return page;
}

export async function closePage(page) {
  assert.deepEqual([...new Set(page.faults)], []);
  await page.context().close();
}

// Waits until a view has marked that it can be used, which it does anew each time that it is
// shown; milliseconds since the page was asked for.
export async function usable(page, view) {
  const mark = `${view}-usable`;
  await page.waitForFunction((name) => performance.getEntriesByName(name).length > 0, mark);
  return page.evaluate((name) => {
    const { startTime } = performance.getEntriesByName(name).at(-1);
    performance.clearMarks(name);
    return startTime;
  }, mark);
}

// Nothing serious stands in the way of those who use a screen reader or
// nothing but the keyboard.
export async function accessible(page) {
  assert.deepEqual([...new Set(page.faults)], []); // axe itself breaks the policy afterwards
  await page.evaluate(axe.source);
  const { violations } = await page.evaluate(() => globalThis.axe.run());
  const serious = violations.filter((one) => ["serious", "critical"].includes(one.impact));
  assert.deepEqual(serious.map((one) => `${one.id}: ${one.nodes[0].html}`), []);
  page.faults.length = 0;
}
