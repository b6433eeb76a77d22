// What is asked of the database: views over what real explorers found, and what has been.

#include "tests/system/publish/PublishTesting.h"

#include <nlohmann/json.hpp>

#include <set>

using namespace tqtest;

TEST(PublishQuestionsTest, ViewsAnswerByWhatExplorersFound)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(publishing.start());
  for (char const* const authority : {"host", "filesystem", "software"})
    ASSERT_TRUE(publishing.awaitSql("select count(*) > 0 from item join discovery d "
                                    "on d.id = discovery_id where type = 2 and authority = '" +
                                        std::string(authority) + "'",
                                    "t"))
        << authority << publishing.log();

  // The machine's own root may be as full as it likes.
  EXPECT_EQ(publishing.sql("select count(*) > 0 from item i join discovery d "
                           "on d.id = i.discovery_id where d.authority = 'filesystem' "
                           "and fact_number(i.facts, 'Size') > 0 and i.name = '/'"),
            "t");
  EXPECT_EQ(publishing.sql("select count(*) = (select count(*) from item i where "
                           "fact_number(facts, 'Used') > 4 * fact_number(facts, 'Available')) "
                           "from full_filesystem"),
            "t");
  EXPECT_EQ(publishing.sql("select host, manager, version <> '' from package_version "
                           "where package = 'bash'"),
            "tqtestmaster|dpkg|t");
  EXPECT_EQ(publishing.sql("select count(*) > 50 from package_version"), "t");
  EXPECT_EQ(publishing.sql("select count(*) from silent_host"), "0");
  EXPECT_EQ(publishing.sql("select count(*) from recent_change where authority = 'host' "
                           "and event = 'appeared' and host = 'tqtestmaster'"),
            "2")
      << "what it found, and what can be asked for";
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();

  // A day later.
  publishing.sql("update discovery set reported = reported - interval '25 hours'");
  EXPECT_EQ(publishing.sql("select host, masters, stale, silent_for > interval '1 day' "
                           "from silent_host"),
            "tqtestmaster|tqtestmaster|f|t");
  EXPECT_THAT(publishing.sql("set enable_seqscan = off; explain (costs off) "
                             "select * from item where facts @> '{\"Package\": \"bash\"}'"),
              HasSubstr("item_facts"));
  Outcome const usage = publishing.run({"usage"});
  EXPECT_EQ(usage.exitCode, 0) << usage.errors;
  EXPECT_THAT(usage.output, HasSubstr("hosts: 1, discoveries: "));
  EXPECT_THAT(usage.output, HasSubstr("for each 10,000 hosts: "));
}

TEST(PublishQuestionsTest, WhatTheCommandForOperatorsPrintsCanBeAsked)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  auto environment = publishing.environment();
  environment["PGPASSWORD"] = "secret";
  environment["PGDATABASE"] = "a b";
  auto const ask = [&](LiveService::Words const& words)
  { return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, environment); };
  Outcome const json = ask({"sql", "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.errors;
  auto const told = nlohmann::json::parse(json.output);
  EXPECT_EQ(told["connection"].get<std::string>(),
            "host=" + publishing.postgres().socket() + " port=5432 dbname='a b' user=owner");
  std::set<std::string> views;
  for (auto const& view : told["views"])
    views.insert(view["name"].get<std::string>());
  EXPECT_EQ(views.size(), std::stoul(publishing.sql("select count(*) from pg_views where "
                                                    "schemaname = 'public'")));
  for (std::string const& view : views)
    publishing.sql("select * from " + view);
  EXPECT_EQ(told["questions"].size(), 3U);
  Outcome const text = ask({"sql"});
  for (auto const& question : told["questions"])
  {
    publishing.sql(question["sql"].get<std::string>());
    EXPECT_THAT(text.output, HasSubstr(question["sql"].get<std::string>()));
  }
  EXPECT_THAT(text.output + json.output, Not(HasSubstr("secret")));
}

TEST(PublishQuestionsTest, HistoryIsKeptForItsDaysAndNotForWhatIsLeftOut)
{
  LiveService service;
  Publishing publishing(service, "HISTORY_DAYS = 3\nHISTORY_EXCEPT = noisy, ser*\n");
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "web2", "noisy", itemsWith({{"a", "0noisy"}})); // as web1 has at first
  for (int round = 0; round < 3; ++round)
  {
    for (char const* const authority : {"noisy", "service", "probe"})
      storeIn(service, "web1", authority, itemsWith({{"a", std::to_string(round) + authority}}));
    storeIn(service, "gone" + std::to_string(round), "probe",
            itemsWith({{"gone", std::to_string(round)}}));
    ASSERT_EQ(publishing.once().exitCode, 0);
    if (round == 0)
      publishing.sql("update history set at = at - interval '4 days'");
  }
  EXPECT_EQ(publishing.sql("select authority, event, count(*) from history h "
                           "join discovery d on d.id = h.discovery_id where subject = 'web1' "
                           "group by 1, 2 order by 1, 2"),
            "probe|changed|2")
      << "what appeared four days ago is no more";
  // Of probe: two that were, and one that is; of each other one, since no history names more.
  EXPECT_EQ(publishing.sql("select count(*) from payload"), "9");
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);

  removeFrom(service, "gone0", "probe");
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select count(*) from discovery where gone is not null"), "1");
  publishing.sql("update discovery set gone = gone - interval '4 days'; "
                 "update history set at = at - interval '4 days'");
  ASSERT_EQ(publishing.once().exitCode, 0);
  EXPECT_EQ(publishing.sql("select count(*) from discovery where gone is not null"), "0");
  EXPECT_EQ(publishing.sql("select count(*) from history"), "0");
  EXPECT_EQ(publishing.sql("select count(*) from payload"), "6");
  EXPECT_EQ(publishing.unsound(), Publishing::SOUND);
}

TEST(PublishQuestionsTest, MuchThatIsOldIsRemovedInSmallTransactions)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_EQ(publishing.once().exitCode, 0);
  publishing.sql("insert into history (at, discovery_id, event) select now() - interval '31 days', "
                 "id, 'changed' from discovery, generate_series(1, 5001)");
  publishing.sql("create function see_few() returns trigger language plpgsql as $$ begin "
                 "if (select count(*) from ended) > 2000 then raise exception 'too many'; end if; "
                 "return null; end $$; create trigger see_few after delete on history "
                 "referencing old table as ended for each statement execute function see_few()");
  Outcome const outcome = publishing.once();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, Not(HasSubstr("too many")));
  EXPECT_EQ(publishing.sql("select count(*) from history"), "1") << "that it appeared just now";
}
