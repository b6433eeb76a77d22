// What the passes ask PostgreSQL to do. Values are parameters or come through COPY.

#include "publish/Database.h"

namespace Publish
{

namespace
{

struct Statement
{
  char const* name;
  char const* text;
};

// Times are in whole seconds on their way; the last that there is stands for "never".
constexpr Statement STATEMENTS[] = {
    {"name_master",
     "insert into master (name) select $1 where not exists (select from master where name = $1)"},
    {"master", "select id from master where name = $1"},
    {"heartbeat", "update master set heard = now(), complete = $2, stale = false, reason = null, "
                  "since = case when stale then now() else since end, "
                  "ahead = make_interval(secs => nullif($3::float8, 0)) where id = $1"},
    {"away", "update master set stale = true, reason = $2, "
             "since = case when stale then since else now() end "
             "where id = $1 and (not stale or reason is distinct from $2)"},
    {"unfollowed", "update master set stale = true, reason = 'not followed any more', "
                   "since = case when stale then since else now() end "
                   "where name <> all ($1::text[]) and reason is distinct from "
                   "'not followed any more'"},
    {"known", "select key, encode(substring(digest from 1 for 16), 'hex'), "
              "coalesce(extract(epoch from discovered)::bigint, 0), "
              "case when expires = 'infinity' then 253402300799 "
              "else coalesce(extract(epoch from expires)::bigint, 0) end, unread "
              "from discovery where master_id = $1 and key > $2 and gone is null "
              "order by key limit 5000"},

    {"payload", "insert into payload (digest, content) values ($1, $2) "
                "on conflict do nothing returning 1"},
    {"add_payloads", "insert into payload (digest, content) select digest, content "
                     "from staged_payload on conflict do nothing"},
    {"more_payload", "update payload set content = content || $2::bytea where digest = $1"},

    {"find_staged", "update staged s set id = d.id, before = d.digest, "
                    "was_gone = d.gone is not null "
                    "from discovery d where d.master_id = $1 and d.key = s.key"},
    {"add_staged",
     "with added as (insert into discovery (master_id, key, subject, authority, type, on_demand, "
     "discovered, expires, reported, digest, unread, problem) "
     "select $1, key, subject, authority, type, on_demand, to_timestamp(nullif(discovered, 0)), "
     "case when expires >= 253402300799 then 'infinity' else to_timestamp(nullif(expires, 0)) end, "
     "case when $2 then coalesce(least(to_timestamp(nullif(discovered, 0)), now()), now()) "
     "else now() end, digest, unread, problem "
     "from staged where id is null returning id, key) "
     "update staged s set id = a.id, is_new = true from added a where a.key = s.key"},
    {"update_staged",
     "update discovery d set discovered = n.discovered, expires = n.expires, "
     "reported = case when d.discovered is distinct from n.discovered then now() "
     "else d.reported end, digest = n.digest, unread = n.unread, problem = n.problem, gone = null "
     "from (select s.id, to_timestamp(nullif(s.discovered, 0)) as discovered, "
     "case when s.expires >= 253402300799 then 'infinity' "
     "else to_timestamp(nullif(s.expires, 0)) end as expires, "
     "case when s.unread then s.before else s.digest end as digest, s.unread, "
     "case when s.kept then o.problem else s.problem end as problem "
     "from staged s join discovery o on o.id = s.id where not s.is_new) n "
     "where d.id = n.id and ((d.discovered, d.digest, d.unread, d.problem) is distinct from "
     "(n.discovered, n.digest, n.unread, n.problem) or d.gone is not null "
     "or d.expires not between n.expires - interval '10 seconds' "
     "and n.expires + interval '10 seconds')"},
    {"note_staged",
     "with changed as (select id, key from staged where keep_history and not is_new "
     "and not was_gone and not unread and before is distinct from digest), "
     "old as (select i.* from item i join changed c on c.id = i.discovery_id), "
     "new as (select c.id as discovery_id, i.key, i.name, i.facts "
     "from changed c join staged_item i on i.record = c.key), "
     "difference as (select coalesce(n.discovery_id, o.discovery_id) as id, "
     "coalesce(n.name, o.name) as name, "
     "case when o.key is null then 'came' when n.key is null then 'went' else 'changed' end "
     "as event, changed_facts(o.facts, n.facts) as facts, "
     "row_number() over (partition by coalesce(n.discovery_id, o.discovery_id)) as number "
     "from new n full join old o on o.discovery_id = n.discovery_id and o.key = n.key "
     "where o.facts is distinct from n.facts), "
     "changes as (select id, jsonb_agg(jsonb_build_object('item', name, 'event', event, "
     "'facts', case when event = 'changed' then facts end)) as list "
     "from difference where number <= 1000 group by id) "
     "insert into history (discovery_id, event, before, after, changes) "
     "select s.id, case when s.is_new or s.was_gone then 'appeared' else 'changed' end, "
     "case when not s.was_gone then s.before end, s.digest, c.list "
     "from staged s left join changes c on c.id = s.id "
     "where s.is_new or s.was_gone or s.id in (select id from changed)"},
    {"drop_items", "delete from item i using staged s where i.discovery_id = s.id and not s.unread "
                   "and not s.kept and not exists (select from staged_item n "
                   "where n.record = s.key and n.key = i.key)"},
    {"write_items",
     "insert into item as i (discovery_id, key, name, facts, status, policy, content) "
     "select s.id, n.key, n.name, n.facts, n.status, n.policy, n.content "
     "from staged s join staged_item n on n.record = s.key where not s.unread "
     "on conflict (discovery_id, key) do update set facts = excluded.facts, "
     "status = excluded.status, policy = excluded.policy, content = excluded.content "
     "where (i.facts, i.status, i.policy, i.content) is distinct from "
     "(excluded.facts, excluded.status, excluded.policy, excluded.content)"},
    {"drop_payloads",
     "delete from payload p using staged s where p.digest = s.before and not s.unread "
     "and s.before is distinct from s.digest "
     "and not exists (select from discovery d where d.digest = p.digest) "
     "and not exists (select from history h where h.before = p.digest)"},

    {"gone", "with ended as (update discovery set gone = now() where master_id = $1 "
             "and key = any ($2::uuid[]) and gone is null returning id, digest), "
             "noted as (insert into history (discovery_id, event, before) "
             "select id, 'gone', digest from ended) "
             "delete from item where discovery_id in (select id from ended)"},

    {"old_history",
     "with ended as (delete from history where id in (select id from history "
     "where at < now() - make_interval(days => $1) order by at limit 2000) "
     "returning id, before) "
     "select count(*), array_agg(distinct before) filter (where before is not null) from ended"},
    {"old_discoveries",
     "with ended as (delete from discovery where id in (select id from discovery "
     "where gone < now() - make_interval(days => $1) order by gone limit 2000) "
     "returning id, digest) "
     "select count(*), array_agg(distinct digest) filter (where digest is not null) from ended"},
    {"unused_payloads", "delete from payload p where p.digest = any ($1::bytea[]) "
                        "and not exists (select from discovery d where d.digest = p.digest) "
                        "and not exists (select from history h where h.before = p.digest)"},
};

} // namespace

void Database::prepare()
{
  {
    pqxx::nontransaction session(m_connection);
    // What is staged differs from batch to batch; plans for all of them would be bad ones.
    session.exec("set plan_cache_mode = force_custom_plan");
    session.exec("create temporary table staged (key uuid primary key, subject text, "
                 "authority text, type smallint, on_demand boolean, discovered bigint, "
                 "expires bigint, digest bytea, unread boolean, problem text, "
                 "keep_history boolean, kept boolean, id bigint, before bytea, "
                 "was_gone boolean not null default false, is_new boolean not null default false)");
    session.exec("create temporary table staged_item (record uuid, key bigint, name text, "
                 "facts jsonb, status jsonb, policy text, content text, "
                 "primary key (record, key))");
    session.exec("create temporary table staged_payload (digest bytea, content bytea)");
    // What was compressed on its way in would be compressed once more.
    session.exec("alter table staged_payload alter content set storage external");
  }
  for (Statement const& statement : STATEMENTS)
    m_connection.prepare(statement.name, statement.text);
}

} // namespace Publish
