// Each view, as people meet it.

import assert from "node:assert/strict";
import fs from "node:fs";
import path from "node:path";
import { after, before, test } from "node:test";

import { accessible, closePage, openPage, startBrowser, usable } from "./support/browser.mjs";
import { fleetOf, hostName } from "./support/database.mjs";
import { Fleet, MASTER, until } from "./support/programs.mjs";

const HOSTS = 240;
const PICTURES = process.env.TQ_PICTURE_DIR;

let fleet;
let browser;

before(async () => {
  fleet = await Fleet.start({ database: fleetOf(HOSTS), explorers: true });
  browser = await startBrowser();
});

after(async () => {
  await browser?.close();
  await fleet?.stop();
});

async function picture(page, name) {
  fs.mkdirSync(PICTURES, { recursive: true });
  await page.mouse.move(0, 0);
  await page.screenshot({ path: path.join(PICTURES, `${name}.png`) });
}

const figure = (page, label) => page.locator(".figure", { hasText: label }).locator("dd");

test("the policy allows nothing but what the gateway itself serves", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  assert.match(page.policy, /default-src 'none'/);
  assert.match(page.policy, /script-src 'self'(;|$)/);
  assert.match(page.policy, /style-src 'self'(;|$)/);
  assert.doesNotMatch(page.policy, /unsafe|\*|https?:/);
  const refused = await page.evaluate(() => new Promise((resolve) => {
    document.addEventListener("securitypolicyviolation",
      (event) => resolve(event.effectiveDirective), { once: true });
    const script = document.createElement("script");
    try {
      script.text = "globalThis.inserted = true";
      document.head.append(script);
    } catch (error) {
      resolve(error.name);
    }
  }));
  assert.ok(["script-src-elem", "require-trusted-types-for", "TypeError"].includes(refused), refused);
  assert.equal(await page.evaluate(() => globalThis.inserted), undefined);
  page.faults.length = 0;
  await closePage(page);
});

for (const colorScheme of ["light", "dark"]) {
  test(`Fleet tells what needs a look (${colorScheme})`, async () => {
    const page = await openPage(browser, fleet, "", { colorScheme });
    await usable(page, "fleet");
    const silent = (await fleet.get("hosts")).hosts.filter((host) => host.silent).length;
    assert.ok(silent >= 10);
    assert.equal(await figure(page, "Silent").innerText(), String(silent));
    await page.waitForFunction(() =>
      [...document.querySelectorAll(".look .note")].filter((one) => /^as of/.test(one.textContent))
        .length === 2);
    const failing = Array.from({ length: HOSTS }, (_, number) => number)
      .filter((number) => number % 57 === 5 && number % 23 !== 11).length;
    assert.equal(await figure(page, "Failing explorers").innerText(), String(failing));
    const full = Number(await figure(page, "Full file systems").innerText());
    assert.ok(full >= HOSTS / 40, `${full} are full`);
    const looks = page.locator(".look");
    assert.equal(await looks.nth(0).locator("h2").innerText(), "Silent hosts");
    assert.equal(await page.locator(".age-bar").count(), 7);
    if (colorScheme === "light") await picture(page, "page-fleet");
    await page.locator(".age-bar").last().click();
    await usable(page, "hosts");
    assert.match(page.url(), /only=old/);
    await page.goBack();
    await usable(page, "fleet");
    await accessible(page);
    await closePage(page);
  });
}

test("Fleet lists those first that told something longest ago, and names the oldest", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  const { hosts } = await fleet.get("hosts");
  const byTime = (left, right) => Date.parse(left.latestTime) - Date.parse(right.latestTime);
  const silent = hosts.filter((host) => host.silent).sort(byTime).map((host) => host.host);
  assert.deepEqual(await page.locator("[aria-labelledby=silent-title] .host-name").allInnerTexts(),
    silent);
  const [oldest] = hosts.filter((host) => host.latestTime).sort(byTime);
  assert.equal(await figure(page, "Oldest report").locator(".host-name").innerText(), oldest.host);
  await closePage(page);
});

test("ages grow while one looks at them", async () => {
  const page = await openPage(browser, fleet, "#/fleet");
  await usable(page, "fleet");
  await page.evaluate(() => {
    globalThis.looked = document.createElement("time");
    looked.dataset.form = "age";
    looked.setAttribute("datetime", new Date().toISOString());
    looked.textContent = "0 s";
    document.body.append(looked);
  });
  await page.waitForFunction(() => /^[1-9]\d* s$/.test(looked.textContent));
  await closePage(page);
});

test("Hosts names no authority that only stands beside what people ask about", async () => {
  await until("the explorers have reported", async () => {
    const known = await fleet.get(`hosts/${MASTER}`).catch(() => null);
    return ["machine.", "-filter"].every((aside) =>
      known?.records.some((record) => record.authority.includes(aside)));
  });
  const page = await openPage(browser, fleet, `#/hosts?search=${MASTER}`);
  await usable(page, "hosts");
  const row = page.locator(".tabulator-row", { hasText: MASTER });
  await row.getByText(/filesystem/).waitFor();
  assert.doesNotMatch(await row.innerText(), /machine\.|-filter/);
  await closePage(page);
});

test("a share is coloured by how much is left", async () => {
  const page = await openPage(browser, fleet,
    `#/ask?${new URLSearchParams({ authority: "filesystem", where: "Use >= 90%" })}`);
  await page.waitForSelector(".tabulator-row .share");
  const shares = await page.locator(".tabulator-row .share").evaluateAll((nodes) => nodes.map((node) =>
    [Number.parseFloat(node.textContent), node.querySelector(".fill").getAttribute("class")]));
  assert.ok(shares.some(([value]) => value < 95) && shares.some(([value]) => value >= 95), `${shares}`);
  for (const [value, fill] of shares) assert.equal(fill, value >= 95 ? "fill bad" : "fill warn", value);
  await closePage(page);
});

test("Hosts can be searched and sorted, and opens the host that is clicked", async () => {
  const page = await openPage(browser, fleet, "#/hosts");
  await usable(page, "hosts");
  await picture(page, "page-hosts");
  const names = () => page.locator(".tabulator-row .host-name").allInnerTexts();
  const inOrder = await names();
  assert.deepEqual(inOrder, [...inOrder].sort((a, b) => a.localeCompare(b, "en", { numeric: true })));
  await page.getByRole("button", { name: "Latest report" }).click();
  await page.getByRole("button", { name: "Latest report" }).click();
  assert.equal(await page.locator("[role=columnheader][aria-sort=descending]").count(), 1);
  await page.getByLabel("Search hosts").fill("db1. ber");
  await until("one host is left", async () => (await names()).length === 0);
  await page.getByLabel("Search hosts").fill("web12.");
  await until("one host is left", async () => (await names()).length === 1);
  assert.match(page.url(), /search=web12/);
  await page.getByLabel("Search hosts").fill("");
  await page.getByLabel("Which hosts").selectOption("silent");
  await until("silent hosts are left", async () =>
    (await page.locator(".tabulator-row").count()) === (await page.locator(".badge.bad").count()));
  await accessible(page);
  await page.locator(".tabulator-row .host-name").first().click();
  await usable(page, "host");
  assert.match(page.url(), /#\/host\//);
  await closePage(page);
});

test("Hosts remembers its columns", async () => {
  const page = await openPage(browser, fleet, "#/hosts");
  await usable(page, "hosts");
  const titles = () => page.locator(".column-title:visible").allInnerTexts();
  assert.ok((await titles()).includes("First expires"));
  await page.getByText("Columns", { exact: true }).click();
  await page.getByLabel("First expires").uncheck();
  await page.getByRole("button", { name: "Discoveries" }).click();
  assert.ok(!(await titles()).includes("First expires"));
  await page.reload();
  await usable(page, "hosts");
  assert.ok(!(await titles()).includes("First expires"));
  assert.equal(await page.locator("[role=columnheader][aria-sort=ascending]").innerText(),
    "Discoveries");
  await closePage(page);
});

test("Host shows facts by authority, what has changed, and the payload as it is", async () => {
  const subject = hostName(2);
  const page = await openPage(browser, fleet, `#/host/${subject}`);
  await usable(page, "host");
  const fact = (name) => page.locator(".facts > div", { has: page.getByText(name, { exact: true }) })
    .locator("dd");
  assert.equal(await fact("Memory").innerText(), "64.0 GiB");
  await page.getByRole("tab", { name: "filesystem" }).click();
  await page.waitForSelector(".fact-table .tabulator-row");
  assert.match(page.url(), /authority=filesystem/);
  await page.getByRole("heading", { name: /^Nothing has changed since/ }).waitFor();
  const collection = await fleet.get(`discoveries/${subject}/filesystem?type=client`);
  const items = Object.fromEntries(collection.items.map(({ name, facts }) => [name,
    facts.Use === undefined ? facts : { ...facts, Use: `${facts.Use}%` }]));
  items["/"].Used = 79 * 2 ** 30;
  items["/"].Use = "98%";
  items["/new"] = { MountPoint: "/new", Type: "xfs", Kind: "local" };
  await fleet.report(subject, "filesystem", items);
  await page.getByRole("heading", { name: /changes? since/ }).waitFor();
  const changes = await page.locator(".changes tbody tr").allInnerTexts();
  assert.ok(changes.some((text) => /\/\tUsed\t.*\t79\.0 GiB/.test(text)), changes.join("\n"));
  assert.ok(changes.some((text) => /\/new\titem added/.test(text)), changes.join("\n"));
  assert.ok(await page.locator(".fact-table .fresh").count() > 0);
  await picture(page, "page-host");
  await accessible(page);
  await page.getByRole("button", { name: "Payload" }).click();
  const shown = await page.locator(".payload").textContent();
  const xml = await (await fetch(new URL(
    `api/v1/discoveries/${subject}/filesystem?type=client`, fleet.address),
  { headers: { accept: "application/xml" } })).text();
  assert.equal(shown, xml);
  await closePage(page);
});

test("what this machine's explorers found is shown, on demand as well", async () => {
  await until("the explorers have reported", async () => {
    const known = await fleet.get(`hosts/${MASTER}`).catch(() => null);
    return known?.records.some((record) => record.authority === "host") &&
      known.records.some((record) => record.authority === "volume");
  });
  const page = await openPage(browser, fleet, `#/host/${MASTER}`);
  await usable(page, "host");
  for (const authority of ["filesystem", "volume", "service"]) {
    await page.getByRole("tab", { name: new RegExp(`^${authority}`) }).first().click();
    await page.waitForFunction((name) =>
      document.querySelector("#panel h2")?.textContent === name, authority);
    assert.equal(await page.locator("#panel .problem").count(), 0);
  }
  await closePage(page);
});

test("Ask answers with a table that can be saved, and its address holds the question", async () => {
  const page = await openPage(browser, fleet, "#/ask");
  await page.getByLabel("Authority").selectOption("filesystem");
  await page.getByLabel("Items where").fill("Use > 60% and Kind = local");
  await page.getByRole("button", { name: "Ask", exact: true }).click();
  await page.waitForSelector(".tabulator-row");
  const expected = JSON.parse(await fleet.ctl("items", "--authority", "filesystem", "--where",
    "Use > 60% and Kind = local", "--count", "--json")).items;
  assert.match(await page.getByText(/items? on .* hosts/).innerText(),
    new RegExp(`^${expected} items on `));
  await picture(page, "page-ask");
  await accessible(page);
  const download = async (label) => {
    const [file] = await Promise.all([page.waitForEvent("download"),
      page.getByRole("button", { name: label }).click()]);
    return { name: file.suggestedFilename(), text: fs.readFileSync(await file.path(), "utf8") };
  };
  const json = await download("Save as JSON");
  assert.equal(JSON.parse(json.text).length, expected);
  const csv = await download("Save as CSV");
  assert.equal(csv.name, "filesystem.csv");
  assert.equal(csv.text.trimEnd().split("\r\n").length, expected + 1);
  assert.match(csv.text, /^subject,authority,item,/);
  const again = await openPage(browser, fleet, new URL(page.url()).hash);
  await again.waitForSelector(".tabulator-row");
  assert.equal(await again.getByLabel("Items where").inputValue(), "Use > 60% and Kind = local");
  await closePage(again);
  await closePage(page);
});

test("nothing runs over on a narrow screen", async () => {
  const page = await openPage(browser, fleet, "#/fleet", { viewport: { width: 360, height: 740 } });
  for (const hash of ["#/fleet", "#/hosts", `#/host/${hostName(3)}`,
    "#/ask?authority=filesystem&where=Use+%3E+60%25"]) {
    await page.goto(`${fleet.address}${hash}`);
    await page.waitForSelector(".figure, .tabulator-row, .facts");
    const over = await page.evaluate(() =>
      document.documentElement.scrollWidth - document.documentElement.clientWidth);
    assert.ok(over <= 0, `${hash} runs over by ${over} pixels`);
    await accessible(page);
  }
  await closePage(page);
});
