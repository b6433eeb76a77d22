// The master or the gateway goes and comes back, and so do hosts.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { accessible, closePage, openPage, startBrowser, usable } from "./support/browser.mjs";
import { fleetOf, hostName } from "./support/database.mjs";
import { Fleet, MASTER } from "./support/programs.mjs";

let fleet;
let browser;

before(async () => {
  fleet = await Fleet.start({ database: fleetOf(20) });
  browser = await startBrowser();
});

after(async () => {
  await browser?.close();
  await fleet?.stop();
});

// Waits until the page fetches all anew because something has come back, and not only
// because it does so each minute; counted from this call on.
async function fetchesAnew(page) {
  await page.evaluate(async () => {
    const { link } = await import("/page/live.js");
    globalThis.resets = 0;
    link.addEventListener("reset", () => { globalThis.resets += 1; });
  });
  return () => page.waitForFunction(() => globalThis.resets > 0);
}

test("what is reported shows without a reload", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  const hosts = page.locator(".figure").first().locator("dd");
  const before = Number(await hosts.innerText());
  await fleet.put("newcomer", "probe", "colour=blue", "--expires-in", "1h");
  await page.waitForFunction((number) =>
    document.querySelector(".figure dd").textContent === String(number), before + 1);
  await page.goto(`${fleet.address}#/host/newcomer`);
  await usable(page, "host");
  await fleet.put("newcomer", "probe", "colour=green", "--expires-in", "1h");
  await page.locator(".changes td", { hasText: "green" }).waitFor();
  await closePage(page);
});

test("a master that is away is told with since when, and what was known stays", async () => {
  const page = await openPage(browser, fleet, `#/host/${hostName(1)}`);
  await usable(page, "host");
  await page.locator("#link[data-state=live]").waitFor();
  assert.ok(await page.locator("#away").isHidden());
  await fleet.stopMaster();
  await page.locator("#away", { hasText: `The master ${MASTER} is away since` }).waitFor();
  const { masters } = await fleet.get("status");
  const since = await page.evaluate((time) => new Date(time).toTimeString().slice(0, 8),
    masters[0].since);
  assert.match(await page.locator("#away").innerText(), new RegExp(`since ${since}`));
  assert.ok(await page.locator(".facts").isVisible());
  await accessible(page);
  await page.goto(`${fleet.address}#/hosts`);
  await usable(page, "hosts");
  assert.ok(await page.locator(".tabulator-row").count() > 10);
  const hasFetched = await fetchesAnew(page);
  await fleet.startMaster();
  await hasFetched();
  await page.locator("#away").waitFor({ state: "hidden" });
  await page.locator("#link[data-state=live]").waitFor();
  await closePage(page);
});

test("a gateway that is away is told, and found again", async () => {
  const page = await openPage(browser, fleet, "#/hosts");
  await usable(page, "hosts");
  await page.locator("#link[data-state=live]").waitFor();
  await fleet.stopGateway();
  await page.locator("#away", { hasText: "The gateway does not answer since" }).waitFor();
  assert.ok(await page.locator(".tabulator-row").count() > 10);
  await fleet.put("latecomer", "probe", "colour=red");
  const hasFetched = await fetchesAnew(page);
  await fleet.startGateway();
  await hasFetched();
  await page.locator("#away").waitFor({ state: "hidden" });
  await page.locator(".host-name", { hasText: "latecomer" }).waitFor();
  await closePage(page);
});
