// What passes of tqpublish make of what a master has.

#include "tests/system/publish/PublishTesting.h"

namespace
{

using namespace tqtest;

// All that readers see of the tables, without numbers and times.
std::string rowsOf(Publishing const& publishing)
{
  return publishing.sql(
      "select subject, authority, type, on_demand, encode(digest, 'hex'), unread, problem, "
      "gone is null from discovery order by 1, 2, 3; "
      "select d.subject, i.name, i.facts from item i join discovery d on d.id = i.discovery_id "
      "order by 1, 2; "
      "select d.subject, h.event, encode(h.before, 'hex'), encode(h.after, 'hex'), h.changes "
      "from history h join discovery d on d.id = h.discovery_id order by h.id; "
      "select encode(digest, 'hex'), length(content) from payload order by 1");
}

class PublishPassTest : public testing::Test
{
protected:
  void SetUp() override { ASSERT_TRUE(publishing.create()); }

  LiveService service;
  Publishing publishing{service};
};

} // namespace

TEST_F(PublishPassTest, RowsFollowWhatTheMasterHas)
{
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}, {"b", "2"}}));
  storeIn(service, "web2", "probe", itemsWith({{"a", "1"}, {"b", "2"}}));

  Outcome const first = publishing.once();
  ASSERT_EQ(first.exitCode, 0) << first.errors;
  EXPECT_EQ(publishing.sql("select name, stale, complete, heard is not null from master"),
            "tqtestmaster|f|t|t");
  EXPECT_EQ(publishing.sql("select subject, authority, type, gone is null, problem is null, "
                           "expires > discovered, reported <= now() from discovery order by 1"),
            "web1|probe|2|t|t|t|t\nweb2|probe|2|t|t|t|t");
  EXPECT_EQ(publishing.sql("select d.subject, i.name, i.facts ->> 'Value' from item i "
                           "join discovery d on d.id = i.discovery_id order by 1, 2"),
            "web1|a|1\nweb1|b|2\nweb2|a|1\nweb2|b|2");
  EXPECT_EQ(publishing.sql("select count(*), bool_and(sha256(content) = digest) from payload"),
            "1|t")
      << "both have the same payload";
  EXPECT_EQ(publishing.sql("select event, count(*) from history group by 1"), "appeared|2");

  // One that changes, one that goes, one that comes.
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}, {"b", "3"}, {"c", "4"}}));
  removeFrom(service, "web2", "probe");
  storeIn(service, "web3", "probe", itemsWith({}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select subject, gone is null from discovery order by 1"),
            "web1|t\nweb2|f\nweb3|t");
  EXPECT_EQ(publishing.sql("select d.subject, i.name, i.facts ->> 'Value' from item i "
                           "join discovery d on d.id = i.discovery_id order by 1, 2"),
            "web1|a|1\nweb1|b|3\nweb1|c|4");
  EXPECT_EQ(publishing.sql("select d.subject, h.event, h.before is null, h.after is null "
                           "from history h join discovery d on d.id = h.discovery_id "
                           "where event <> 'appeared' or d.subject = 'web3' order by 1, 2"),
            "web1|changed|f|f\nweb2|gone|f|t\nweb3|appeared|t|f");
  EXPECT_EQ(publishing.sql("select item, event, fact, before, after from recent_change "
                           "where event = 'changed' order by 1"),
            "b|changed|Value|\"2\"|\"3\"\nc|changed|||");

  // Nothing new: nothing but the heartbeat is written.
  std::string const counts =
      "select relname, n_tup_ins + n_tup_upd + n_tup_del from pg_stat_user_tables "
      "where relname <> 'master' and relname not like 'staged%' order by 1";
  std::string const rows = rowsOf(publishing);
  std::string const before = publishing.sql(counts);
  std::string const heard = publishing.sql("select heard from master");
  EXPECT_THAT(publishing.run({"--once", "--log-level", "4"}).errors,
              HasSubstr("2 listed, 0 written, 0 gone"));
  EXPECT_EQ(rowsOf(publishing), rows);
  EXPECT_EQ(publishing.sql(counts), before);
  EXPECT_NE(publishing.sql("select heard from master"), heard);

  // One that comes back appears anew.
  storeIn(service, "web2", "probe", itemsWith({{"a", "5"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select string_agg(h.event, ',' order by h.id) from history h "
                           "join discovery d on d.id = h.discovery_id where d.subject = 'web2'"),
            "appeared,gone,appeared");
  EXPECT_EQ(publishing.sql("select subject, gone is null from discovery order by 1"),
            "web1|t\nweb2|t\nweb3|t");

  // One that reports the same again was heard, and has not changed.
  std::string const reported = "select reported from discovery where subject = 'web1'";
  std::string const times = publishing.sql(reported);
  std::string const histories = publishing.sql("select count(*) from history");
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}, {"b", "3"}, {"c", "4"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_NE(publishing.sql(reported), times);
  EXPECT_EQ(publishing.sql("select count(*) from history"), histories);
  EXPECT_EQ(publishing.sql("select count(*) from item i join discovery d "
                           "on d.id = i.discovery_id where d.subject = 'web1'"),
            "3");

  // Items that it tells no more.
  storeIn(service, "web1", "probe", itemsWith({{"b", "3"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select string_agg(i.name, ',') from item i join discovery d "
                           "on d.id = i.discovery_id where d.subject = 'web1'"),
            "b");
  EXPECT_EQ(publishing.sql("select string_agg(item, ',' order by item) from recent_change "
                           "where item_event = 'went'"),
            "a,c");
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);
}

// As many as do not fit into what is held at a time: the master is listed again for the rest.
TEST_F(PublishPassTest, ManyChangesAreOneTransaction)
{
  constexpr int MANY = 1100;
  for (int i = 0; i < MANY; ++i)
    placeIn(service, std::to_string(i) + std::string(4000, 'n'), "probe",
            itemsWith({{"a", std::to_string(i)}}));
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(publishing.start());
  std::string const all = std::to_string(MANY);
  ASSERT_TRUE(publishing.process().awaitError(all + " listed, " + all + " written, 0 gone"))
      << publishing.log();
  // History has the time at which its transaction began.
  EXPECT_EQ(publishing.sql("select count(*), count(distinct at) from history"), all + "|1");
  EXPECT_EQ(publishing.sql("select count(*) from item join discovery d on d.id = discovery_id "
                           "where d.subject like (facts ->> 'Value') || 'n%'"),
            all)
      << "each has its own payload";
  EXPECT_EQ(occurrences(publishing.log(), "is listed again for the rest"), 1U);
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

TEST_F(PublishPassTest, APayloadThatCannotBeReadIsTriedAgainThoughNothingNewIsTold)
{
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  std::string const payload = service.database() + "/2 probe web1.dat";
  std::filesystem::rename(payload, payload + ".aside");
  EXPECT_THAT(publishing.once().errors, HasSubstr("cannot be read, or is too large: subject web1"));
  EXPECT_EQ(publishing.sql("select unread, digest is null, problem is null from discovery"),
            "t|t|f");
  std::filesystem::rename(payload + ".aside", payload);
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select unread, digest is null, problem is null from discovery"),
            "f|f|t");
  EXPECT_EQ(publishing.sql("select count(*) from item"), "1");
}

// Permissions do not stop root, so the master then runs as somebody else.
TEST_F(PublishPassTest, WhatAnIncompleteListLacksIsNotTakenForGone)
{
  for (char const* const subject : {"web1", "web2", "secret"})
    storeIn(service, subject, "probe", itemsWith({{"a", "1"}}));
  LiveService::Words wrapper;
  if (geteuid() == 0)
  {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(service / "db"))
      PostgresServer::give(entry.path());
    PostgresServer::give(service / "db");
    service.shareProgramsWithEverybody();
    wrapper = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
  std::string const hidden = service.database() + "/2 probe secret.xml";
  std::filesystem::permissions(hidden, std::filesystem::perms(0));
  ASSERT_TRUE(service.start({}, wrapper)) << service.log();
  std::string const rows = "select complete, (select string_agg(host, ',' order by host) "
                           "from known) from master";
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql(rows), "f|web1,web2");
  removeFrom(service, "web2", "probe");
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql(rows), "f|web1,web2");
  std::filesystem::permissions(hidden, std::filesystem::perms(0644));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql(rows), "t|secret,web1");
}

TEST_F(PublishPassTest, WhatHasExpiredIsGone)
{
  ASSERT_TRUE(service.start());
  for (char const* const subject : {"web1", "web2"})
    storeIn(service, subject, "probe", itemsWith({{"a", "1"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  writeText(service.database() + "/2 probe web2.xml",
            records::document(records::PAST, 1, "probe", "web2"));
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select subject, gone is null, (select count(*) from item i "
                           "where i.discovery_id = d.id) from discovery d order by 1"),
            "web1|t|1\nweb2|f|0");
}

// More than are read, and marked, at a time.
TEST_F(PublishPassTest, ManyThatAreGoneAreAllMarked)
{
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  publishing.sql("insert into discovery (master_id, key, subject, authority, type, on_demand, "
                 "discovered, expires, reported) select master_id, md5(i::text)::uuid, 'old' || i, "
                 "authority, type, false, discovered, expires, reported "
                 "from discovery, generate_series(1, 5500) i");
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select gone is null, count(*) from discovery group by 1 order by 1"),
            "f|5500\nt|1");
  EXPECT_EQ(publishing.sql("select count(*) from history where event = 'gone'"), "5500");
}

TEST_F(PublishPassTest, OfOneReportTheHistoryNamesAThousandItems)
{
  ASSERT_TRUE(service.start());
  for (char const* const value : {"1", "2"})
  {
    std::vector<std::pair<std::string, std::string>> items;
    for (int i = 0; i < 1001; ++i)
      items.emplace_back("item" + std::to_string(i), value);
    storeIn(service, "web1", "probe", itemsWith(items));
    ASSERT_EQ(publishing.once().exitCode, 0);
  }
  EXPECT_EQ(publishing.sql("select jsonb_array_length(changes) from history "
                           "where event = 'changed'"),
            "1000");
  EXPECT_EQ(publishing.sql("select count(*) from item where facts ->> 'Value' = '2'"), "1001");
}
