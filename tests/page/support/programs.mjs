// A master and a gateway of its own for a test: real programs, below a product
// root that goes when they do.

import { spawn, execFile } from "node:child_process";
import { once } from "node:events";
import fs from "node:fs";
import net from "node:net";
import os from "node:os";
import path from "node:path";
import { promisify } from "node:util";

const BIN = process.env.TQ_BIN_DIR;
const LIB = process.env.TQ_LIB_DIR;

// Milliseconds for what has to happen, on a machine that has much else to do.
export const PATIENCE = 60000;
const STARTING = 4 * PATIENCE; // with ten thousand hosts

export const MASTER = "atlas";

// Asks again until something holds; what it was, when it never did.
export async function until(what, holds, patience = PATIENCE) {
  const deadline = Date.now() + patience;
  for (;;) {
    const held = await holds();
    if (held) return held;
    if (Date.now() > deadline) throw new Error(`never: ${what}`);
    await new Promise((resolve) => { setTimeout(resolve, 50); });
  }
}

async function freePort() {
  const server = net.createServer().listen(0, "127.0.0.1");
  await once(server, "listening");
  const { port } = server.address();
  server.close();
  await once(server, "close");
  return port;
}

export class Fleet {
  #master = null;
  #gateway = null;

  // `database(directory)` may fill the master's database before it starts;
  // with `explorers` this machine is looked at, too. News are looked for more
  // often than is usual unless `patient`.
  static async start({ database = null, explorers = false, patient = false } = {}) {
    const fleet = new Fleet();
    try {
      await fleet.#prepare(database, explorers, patient);
      await fleet.startMaster();
      await fleet.startGateway();
    } catch (error) {
      await fleet.stop();
      throw error;
    }
    return fleet;
  }

  async #prepare(database, explorers, patient) {
    this.root = fs.mkdtempSync(path.join(os.tmpdir(), "tq-page-"));
    fs.chmodSync(this.root, 0o755);
    for (const folder of ["etc", "lib/plugins", "log"]) {
      fs.mkdirSync(path.join(this.root, folder), { recursive: true, mode: 0o755 });
    }
    if (explorers) {
      fs.copyFileSync(path.join(LIB, "libtqexplorer.so"),
        path.join(this.root, "lib/libtqexplorer.so"));
      fs.chmodSync(path.join(this.root, "lib/libtqexplorer.so"), 0o755);
    }
    this.port = await freePort();
    this.webPort = await freePort();
    fs.writeFileSync(path.join(this.root, "etc/tq.conf"), `\
SERVER = ${MASTER}
CLIENT_NAME = ${MASTER}
HOST_ADDRESS.${MASTER} = 127.0.0.1
ORB_BIND = 127.0.0.1
ORB_PORT.DiscoveryService = ${this.port}
LOG_LEVEL = 1
LOG_FILE = ${this.root}/log/tqdisco.log
WEB_LISTEN = 127.0.0.1:${this.webPort}
${patient ? "" : "WEB_LIST_INTERVAL = 1s\nWEB_MASTER_SHARE = 50"}
WEB_LOG_FILE = ${this.root}/log/tqdiscoweb.log
`, { mode: 0o644 });
    if (database) {
      const directory = path.join(this.root, "db/discovery");
      fs.mkdirSync(directory, { recursive: true, mode: 0o750 });
      database(directory);
    }
  }

  get address() {
    return `http://127.0.0.1:${this.webPort}/`;
  }

  #start(program) {
    const log = fs.openSync(path.join(this.root, `log/${program}.out`), "a");
    const child = spawn(path.join(BIN, program), [], {
      env: { ...process.env, TESSARINE_ROOT: this.root }, stdio: ["ignore", log, log],
    });
    fs.closeSync(log);
    return child;
  }

  // What a program that has ended told before.
  #told(program) {
    return ["out", "log"].map((end) => {
      const file = path.join(this.root, `log/${program}.${end}`);
      return fs.existsSync(file) ? fs.readFileSync(file, "utf8").slice(-2000) : "";
    }).join("");
  }

  async startMaster() {
    this.#master = this.#start("tqdisco");
    await until("the master answers", async () => {
      if (this.#master.exitCode !== null) throw new Error(this.#told("tqdisco"));
      return this.ctl("query", "--subject", "nobody").then(() => true,
        (error) => error.code === 3);
    }, STARTING);
  }

  async startGateway() {
    this.#gateway = this.#start("tqdiscoweb");
    await until("the gateway has a list", async () => {
      if (this.#gateway.exitCode !== null) throw new Error(this.#told("tqdiscoweb"));
      const status = await this.get("status").catch(() => null);
      return status?.masters[0].state === "up";
    }, STARTING);
  }

  async #end(child) {
    if (!child || child.exitCode !== null || child.signalCode !== null) return;
    child.kill("SIGTERM");
    await once(child, "exit");
  }

  async stopMaster() {
    await this.#end(this.#master);
  }

  async stopGateway() {
    await this.#end(this.#gateway);
  }

  async stop() {
    await this.stopGateway();
    await this.stopMaster();
    fs.rmSync(this.root, { recursive: true, force: true });
  }

  // What tqdiscoctl prints.
  async ctl(...parameters) {
    const { stdout } = await promisify(execFile)(path.join(BIN, "tqdiscoctl"), parameters, {
      env: { ...process.env, TESSARINE_ROOT: this.root }, maxBuffer: 64 << 20,
    });
    return stdout;
  }

  async put(subject, authority, ...rest) {
    await this.ctl("put", subject, authority, ...rest);
  }

  // Stores a payload of items, as what an explorer of a host would.
  async report(subject, authority, items, ...rest) {
    const file = path.join(this.root, "payload.xml");
    fs.writeFileSync(file, payload(authority, items));
    await this.put(subject, authority, file, "--type", "client", ...rest);
  }

  async get(endPoint) {
    const answer = await fetch(new URL(`api/v1/${endPoint}`, this.address));
    if (!answer.ok) throw new Error(`${endPoint}: ${answer.status} ${await answer.text()}`);
    return answer.json();
  }

  // Waits until the gateway knows of a subject.
  async knows(subject) {
    await until(`the gateway knows ${subject.slice(0, 60)}`, () =>
      this.get(`hosts/${encodeURIComponent(subject)}`).catch(() => null));
  }
}

export const escaped = (text) => String(text).replaceAll("&", "&amp;").replaceAll("<", "&lt;")
  .replaceAll(">", "&gt;").replaceAll('"', "&quot;").replaceAll("\n", "&#10;");

// A payload of items, { name: { fact: value } }.
export function payload(authority, items) {
  const texts = Object.entries(items).map(([name, facts]) => {
    const inside = Object.entries(facts)
      .map(([fact, value]) => `<${fact}>${escaped(value)}</${fact}>`).join("");
    return `<DISCOVERED Name="${escaped(name)}"><ExplorerData Name="${escaped(authority)}">` +
      `${inside}</ExplorerData></DISCOVERED>`;
  });
  return `<?xml version="1.0" encoding="UTF-8"?><DiscoveredItems>${texts.join("")}` +
    "</DiscoveredItems>\n";
}
