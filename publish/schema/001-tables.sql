-- A master, and when it was last heard: its list came to its end then.
create table master (
  id integer generated always as identity primary key,
  name text not null unique,
  heard timestamptz,
  complete boolean not null default false, -- the last list lacked nothing
  stale boolean not null default true,     -- it cannot be listed, since:
  since timestamptz not null default now(),
  reason text,                             -- why
  ahead interval                           -- of its clock, where it is far from this one
);

-- What masters list, and, with "gone", what they no longer do. "key" is a digest of subject,
-- authority and type, which are too long for an index themselves.
create table discovery (
  id bigint generated always as identity primary key,
  master_id integer not null references master,
  key uuid not null,
  subject text not null,
  authority text not null,
  type smallint not null,         -- 1 server, 2 client, 3 external, 4 remotepull
  on_demand boolean not null,     -- produced when it is asked for: no times, no payload
  discovered timestamptz,         -- by the clock of who found it
  expires timestamptz,
  reported timestamptz not null,  -- by the clock of this database: when the last report was noticed
  digest bytea,                   -- of the payload, SHA-256
  unread boolean not null default false, -- the payload of the last report could not be had
  problem text,                   -- why payload or items are missing or cut off
  gone timestamptz,
  unique (master_id, key)
);
create index discovery_subject on discovery using hash (subject);
create index discovery_digest on discovery (digest);
create index discovery_gone on discovery (gone) where gone is not null;

-- The items of what is not gone. "key" is a digest of the name and, of several of one name, its
-- number.
create table item (
  discovery_id bigint not null references discovery on delete cascade,
  key bigint not null,
  name text not null,
  facts jsonb not null,
  status jsonb,
  policy text,
  content text,                   -- what the explorer wrote, where it is not made of facts
  primary key (discovery_id, key)
);
create index item_facts on item using gin (facts jsonb_path_ops);
create index item_package on item using hash ((facts ->> 'Package')) where facts ? 'Package';

-- Each payload once, as its explorer wrote it.
create table payload (
  digest bytea primary key,
  content bytea not null,
  stored timestamptz not null default now()
);

create table history (
  id bigint generated always as identity primary key,
  at timestamptz not null default now(),
  discovery_id bigint not null references discovery on delete cascade,
  event text not null check (event in ('appeared', 'changed', 'gone')),
  before bytea,                   -- digests of payloads
  after bytea,
  changes jsonb                   -- of items: [{"item", "event", "facts": {name: [before, after]}}]
);
create index history_at on history (at);
create index history_discovery on history (discovery_id, at);
create index history_before on history (before) where before is not null;

-- The facts of an item that are not what they were: {name: [before, after]}.
create function changed_facts(before jsonb, after jsonb) returns jsonb
language sql immutable as $$
  select jsonb_object_agg(key, jsonb_build_array(b.value, a.value))
  from jsonb_each(before) b full join jsonb_each(after) a using (key)
  where b.value is distinct from a.value
$$;

-- A fact that is a number; null when it is none, whatever a host says.
create function fact_number(facts jsonb, name text) returns numeric
language sql immutable as $$
  select case when jsonb_typeof(facts -> name) = 'number' then (facts ->> name)::numeric end
$$;
