-- What there is now.
create view known as
select m.name as master, m.stale, d.subject as host, d.authority, d.type, d.on_demand,
       d.discovered, d.expires, d.reported, d.problem, d.digest, d.id as discovery_id
from discovery d join master m on m.id = d.master_id
where d.gone is null;

-- Hosts of which nothing has been heard for a day, whichever master they reported to. Where
-- "stale" is true it is the master of which nothing is heard.
create view silent_host as
select d.subject as host, string_agg(distinct m.name, ', ') as masters, bool_and(m.stale) as stale,
       max(d.reported) as last_report, now() - max(d.reported) as silent_for
from discovery d join master m on m.id = d.master_id
where d.type = 2 and not d.on_demand
group by d.subject
having max(d.reported) < now() - interval '1 day';

-- File systems of which more than 80 % is in use, of what users can fill.
create view full_filesystem as
select master, stale, host, mount_point, type, used, available,
       round(100 * used / (used + available), 1) as percent
from (select m.name as master, m.stale, d.subject as host, i.name as mount_point,
             i.facts ->> 'Type' as type, fact_number(i.facts, 'Used') as used,
             fact_number(i.facts, 'Available') as available
      from item i
      join discovery d on d.id = i.discovery_id
      join master m on m.id = d.master_id
      where d.authority = 'filesystem' and d.type = 2) f
where used + available > 0 and used > 0.8 * (used + available);

-- What has changed since this time yesterday, fact by fact; an item that came or went as a whole,
-- as "item_event" says, and a discovery that did, has no fact.
create view recent_change as
select d.subject as host, h.at, m.name as master, d.authority, h.event, c.item,
       c.event as item_event, f.fact, f.value -> 0 as before, f.value -> 1 as after
from history h
join discovery d on d.id = h.discovery_id
join master m on m.id = d.master_id
left join lateral jsonb_to_recordset(h.changes) as c(item text, event text, facts jsonb) on true
left join lateral (select key as fact, value from jsonb_each(c.facts)) f on true
where h.at > now() - interval '1 day';

-- The packages of the fleet.
create view package_version as
select i.facts ->> 'Package' as package, i.facts ->> 'Version' as version,
       i.facts ->> 'Architecture' as architecture, i.facts ->> 'Manager' as manager,
       d.subject as host, m.name as master, m.stale
from item i
join discovery d on d.id = i.discovery_id
join master m on m.id = d.master_id
where i.facts ? 'Package' and d.authority = 'software' and d.type = 2;
