// What has changed between two states of a host's discoveries.
//
// A state is a map from a discovery's key to a collection as the API gives it.

// Items of one name are told apart by their order.
function itemsOf(collection) {
  const items = new Map();
  const seen = new Map();
  for (const item of collection.items ?? []) {
    const nth = seen.get(item.name) ?? 0;
    seen.set(item.name, nth + 1);
    items.set(`${nth}/${item.name}`, item);
  }
  return items;
}

const same = (left, right) => left === right || JSON.stringify(left) === JSON.stringify(right);

// The facts in which two items differ, those of `after` first.
function factChanges(before, after) {
  const changes = [];
  const names = new Set([...Object.keys(after.facts), ...Object.keys(before.facts)]);
  for (const fact of names) {
    const old = before.facts[fact] ?? null;
    const now = after.facts[fact] ?? null;
    if (!same(old, now)) changes.push({ fact, old, now });
  }
  if (!same(before.text, after.text)) {
    changes.push({ fact: "(text)", old: before.text, now: after.text });
  }
  return changes;
}

// A list of { authority, key, item, fact, old, now, change }: `change` is
// "added", "changed" or "gone"; `item` is null where a whole discovery came or
// went, and `fact` where a whole item did.
export function changesBetween(before, after) {
  const changes = [];
  for (const [key, collection] of after) {
    const base = { authority: collection.authority, key };
    const earlier = before.get(key);
    if (!earlier) {
      changes.push({ ...base, item: null, fact: null, old: null, now: null, change: "added" });
      continue;
    }
    const oldItems = itemsOf(earlier);
    const newItems = itemsOf(collection);
    for (const [id, item] of newItems) {
      const was = oldItems.get(id);
      if (!was) {
        changes.push({ ...base, item: item.name, fact: null, old: null, now: null, change: "added" });
      } else {
        for (const change of factChanges(was, item)) {
          changes.push({ ...base, item: item.name, ...change, change: "changed" });
        }
      }
    }
    for (const [id, item] of oldItems) {
      if (!newItems.has(id)) {
        changes.push({ ...base, item: item.name, fact: null, old: null, now: null, change: "gone" });
      }
    }
  }
  for (const [key, collection] of before) {
    if (!after.has(key)) {
      changes.push({ authority: collection.authority, key, item: null, fact: null, old: null,
        now: null, change: "gone" });
    }
  }
  return changes;
}
