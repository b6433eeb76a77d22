// The programs on the API that come for others to copy.

import assert from "node:assert/strict";
import { spawn, spawnSync } from "node:child_process";
import path from "node:path";
import { after, before, test } from "node:test";
import { fileURLToPath } from "node:url";

import { fleetOf, hostName } from "./support/database.mjs";
import { Fleet, until } from "./support/programs.mjs";

const EXAMPLES = fileURLToPath(new URL("../../examples/api", import.meta.url));

let fleet;

before(async () => {
  fleet = await Fleet.start({ database: fleetOf(60) });
});

after(() => fleet?.stop());

const gateway = () => fleet.address.replace(/\/$/, "");
const run = (program, ...parameters) => spawnSync(path.join(EXAMPLES, program), parameters,
  { encoding: "utf8", env: { ...process.env, TQ_GATEWAY: gateway() } });

test("the Python program tells silent hosts and full file systems", () => {
  const { stdout, stderr, status } = run("fleet.py", "--gateway", gateway());
  assert.equal(stderr, "");
  assert.equal(status, 1);
  assert.match(stdout, new RegExp(`^silent  ${hostName(11)}  since \\d{4}-`, "m"));
  assert.match(stdout, new RegExp(`^full    ${hostName(7)}  /  9\\d`, "m"));
  assert.equal(run("fleet.py", "--gateway", "http://127.0.0.1:9").status, 2);
});

test("the Python program follows what happens", async () => {
  const child = spawn(path.join(EXAMPLES, "fleet.py"), ["--gateway", gateway(), "--follow"]);
  let told = "";
  child.stdout.on("data", (piece) => { told += piece; });
  try {
    await until("it follows", () => /^state +atlas +up$/m.test(told));
    await fleet.put("newcomer", "probe", "colour=blue");
    await until("it has told", () => /^added +newcomer +probe$/m.test(told));
  } finally {
    child.kill();
  }
});

test("the shell program prints the facts that are asked for", () => {
  const { stdout, stderr, status } = run("ask.sh", "filesystem", 'MountPoint = "/boot"', "Size", "Type");
  assert.equal(stderr, "");
  assert.equal(status, 0);
  const lines = stdout.trimEnd().split("\n");
  assert.equal(lines.length, 60);
  assert.ok(lines.includes(`${hostName(3)}\t/boot\t1073741824\text4`), lines[0]);
  assert.equal(run("ask.sh", "filesystem", "MountPoint = nowhere").status, 3);
});

test("the shell program shows a mistake where it is", () => {
  const { stderr, status } = run("ask.sh", "filesystem", "Use > and Type = ext4");
  assert.equal(status, 2);
  const lines = stderr.trimEnd().split("\n");
  assert.match(lines[0], /line 1, column 7/);
  assert.deepEqual(lines.slice(-2), ["Use > and Type = ext4", "      ^"]);
});
