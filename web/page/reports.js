// How long ago hosts have told something last.

import { moment } from "./format.js";

// Bounds in seconds; the last bucket has none.
export const BUCKETS = [
  { id: "1m", below: 60, label: "< 1 min", words: "within a minute" },
  { id: "5m", below: 300, label: "1–5 min", words: "1 to 5 minutes ago" },
  { id: "15m", below: 900, label: "5–15 min", words: "5 to 15 minutes ago" },
  { id: "1h", below: 3600, label: "15–60 min", words: "15 to 60 minutes ago" },
  { id: "6h", below: 21600, label: "1–6 h", words: "1 to 6 hours ago" },
  { id: "1d", below: 86400, label: "6–24 h", words: "6 to 24 hours ago" },
  { id: "old", below: Infinity, label: "> 1 d", words: "more than a day ago" },
];

// Null for a host of which everything is on demand.
export function bucketOf(host, now = Date.now()) {
  const at = moment(host.latestTime);
  if (Number.isNaN(at)) return null;
  const seconds = (now - at) / 1000;
  return BUCKETS.find((bucket) => seconds < bucket.below);
}

// How many hosts are in each bucket, in the order of BUCKETS.
export function byAge(hosts, now = Date.now()) {
  const counts = new Map(BUCKETS.map((bucket) => [bucket, 0]));
  for (const host of hosts) {
    const bucket = bucketOf(host, now);
    if (bucket) counts.set(bucket, counts.get(bucket) + 1);
  }
  return [...counts].map(([bucket, hostsOfIt]) => ({ ...bucket, hosts: hostsOfIt }));
}
