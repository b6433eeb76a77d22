// Fills a database directory before its master starts, as docs/database.md has
// it, which takes a fraction of what storing by calls would.

import fs from "node:fs";
import path from "node:path";

import { escaped, payload } from "./programs.mjs";

const CLIENT = 2;
const EXTERNAL = 3;

const time = (milliseconds) => `${new Date(milliseconds).toISOString().slice(0, 19)}Z`;

// Only for names whose keys are not cut.
const key = (name) => [...Buffer.from(name)].map((byte) => {
  const character = String.fromCharCode(byte);
  return /[A-Za-z0-9._~-]/.test(character) ? character
    : `%${byte.toString(16).toUpperCase().padStart(2, "0")}`;
}).join("");

// `age` in seconds; `file` is the subject's part of the file's name where it is
// not its key.
export function store(directory, { subject, authority, type = CLIENT, age = 10, text,
  expiresIn = 86400, file = key(subject) }) {
  const now = Date.now();
  const base = path.join(directory, `${type} ${key(authority)} ${file}`);
  fs.writeFileSync(`${base}.dat`, text, { mode: 0o640 });
  fs.writeFileSync(`${base}.xml`, '<?xml version="1.0" encoding="UTF-8"?><DiscoveryData>' +
    `<DiscoveryAuthority Name="${escaped(authority)}" Type="${type}"></DiscoveryAuthority>` +
    `<DiscoverySubject Name="${escaped(subject)}"></DiscoverySubject>` +
    '<DiscoveryAttributes Type="2" Storage="1"><Priority>10</Priority>' +
    `<DiscoveryTime>${time(now - age * 1000)}</DiscoveryTime>` +
    `<ExpiresTime>${time(now + expiresIn * 1000)}</ExpiresTime>` +
    "</DiscoveryAttributes></DiscoveryData>", { mode: 0o640 });
}

export function describe(directory, subject, authority, attributes, age = 10) {
  const texts = attributes.map(([name, type, unit, meaning]) =>
    `<Attribute Name="${name}" Type="${type}" Unit="${unit}" Description="${meaning}"/>`);
  store(directory, { subject, authority, type: EXTERNAL, age,
    text: '<?xml version="1.0" encoding="UTF-8"?><FilterData><QueryDescription>' +
      `${texts.join("")}</QueryDescription></FilterData>\n` });
}

const GIB = 2 ** 30;
const KINDS = ["web", "db", "mail", "cache", "build", "store"];
const PLACES = ["ber", "muc", "ams"];

export const hostName = (number) =>
  `${KINDS[number % KINDS.length]}${number}.${PLACES[number % PLACES.length]}.example.net`;

function fileSystems(number) {
  const use = number % 40 === 7 ? 91 + (number % 9) : 18 + ((number * 37) % 62);
  const one = (mount, device, size, share) => ({ MountPoint: mount, Type: "ext4", Kind: "local",
    Source: device, Root: "/", Size: size * GIB, Used: Math.round(size * GIB * share / 100),
    Available: Math.round(size * GIB * (100 - share) / 100), Use: `${share}%` });
  return { "/": one("/", "/dev/sda2", 80, use), "/boot": one("/boot", "/dev/sda1", 1, 41),
    "/srv": one("/srv", "/dev/sdb1", 2048, (use * 3) % 85),
    "/proc": { MountPoint: "/proc", Type: "proc", Kind: "pseudo", Source: "proc", Root: "/" } };
}

function services(number) {
  const fails = number % 57 === 5;
  const explorer = (result) => ({ Kind: "push", Type: "client", Priority: 10,
    LastRun: time(Date.now() - 120000), LastResult: result });
  return { [hostName(number)]: { Kind: "service", Role: "client", Version: "9.9",
    StartTime: time(Date.now() - 40 * 86400e3), StoredDiscoveries: 4 },
  filesystem: explorer("success"),
  software: explorer(fails ? "the collection could not be made" : "success") };
}

function hostFacts(number) {
  return { [hostName(number)]: { HostName: hostName(number).split(".")[0],
    OsName: "Debian GNU/Linux 12 (bookworm)", OsId: "debian", OsVersion: "12",
    KernelName: "Linux", KernelRelease: `6.1.0-${25 + (number % 4)}-amd64`,
    Architecture: "x86_64", Processors: 4 << (number % 4), ProcessorModel: "Example Processor E5",
    Memory: (16 << (number % 4)) * GIB, Swap: 0, BootTime: time(Date.now() - (number % 90) * 86400e3),
    TimeZone: "Europe/Berlin", Virtualization: "kvm" } };
}

const FILESYSTEM = [
  ["MountPoint", "text", "", "Where the file system is mounted"],
  ["Type", "text", "", "The type of the file system"],
  ["Kind", "text", "", "local, memory, network, pseudo or other"],
  ["Source", "text", "", "The device or share that is mounted"],
  ["Size", "size", "bytes", "The size of the file system"],
  ["Used", "size", "bytes", "The space in use"],
  ["Available", "size", "bytes", "The space that users can still fill"],
  ["Use", "number", "%", "The share in use of what users can fill"]];
const HOST = [
  ["HostName", "text", "", "The name that the kernel has for the host"],
  ["OsName", "text", "", "The operating system, as it presents itself"],
  ["KernelRelease", "text", "", "The kernel's release"],
  ["Processors", "number", "", "The processors in use"],
  ["Memory", "size", "bytes", "The main memory that the kernel manages"],
  ["Swap", "size", "bytes", "The swap space"],
  ["BootTime", "time", "", "When the host was started"]];
const SERVICE = [["Kind", "text", "", "service, push or pull"],
  ["LastResult", "text", "", "What came of that"], ["LastRun", "time", "", "When it ran last"]];

// A fleet of that many hosts: one in forty with a file system that is full, one
// in 57 with an explorer that fails, one in 23 silent. With `slight` a host has
// one discovery, or two where it is silent, instead of six with what can be asked.
export function fleetOf(count, { slight = false } = {}) {
  return (directory) => {
    for (let number = 0; number < count; number += 1) {
      const subject = hostName(number);
      const silent = number % 23 === 11;
      const age = silent ? 1000 + number * 370 : number % 9 === 4 ? number * 5 : (number * 7) % 55;
      if (!silent) {
        store(directory, { subject, authority: "service", age,
          text: payload("service", services(number)) });
      }
      if (slight && !silent) continue;
      store(directory, { subject, authority: "filesystem", age: age + 100,
        text: payload("filesystem", fileSystems(number)) });
      store(directory, { subject, authority: "host", age: age + 1200,
        text: payload("host", hostFacts(number)) });
      if (slight) continue;
      describe(directory, subject, "filesystem", FILESYSTEM, age + 100);
      describe(directory, subject, "host", HOST, age + 1200);
      if (!silent) describe(directory, subject, "service", SERVICE, age);
    }
  };
}
