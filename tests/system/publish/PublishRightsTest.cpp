// Who may work on the database of tqpublish, and when.

#include "tests/system/publish/PublishTesting.h"

using namespace tqtest;

TEST(PublishRightsTest, OneWorksAndTheOtherWaitsForItsEnd)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.awaitSql("select count(*) from item", "1"));

  Process other(TQ_BIN_DIR "/tqpublish", {"--once"}, publishing.environment());
  ASSERT_TRUE(other.awaitError("Another tqpublish works on this database; waiting for its end"));
  EXPECT_TRUE(other.running());
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
  ASSERT_TRUE(other.wait());
  EXPECT_EQ(other.exitCode(), 0);
  EXPECT_THAT(other.errors(), HasSubstr("Works on the database postgres as owner"));
}

TEST(PublishRightsTest, ASchemaThatIsNotTheProgramsIsLeftAlone)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.postgres().create());
  ASSERT_TRUE(publishing.postgres().start());
  Outcome const none = publishing.once();
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_THAT(none.errors, HasSubstr("the database has no schema; \"tqpublish migrate\" makes it"));
  Outcome const usage = publishing.run({"usage"});
  EXPECT_EQ(usage.exitCode, 1);

  ASSERT_TRUE(publishing.migrate());
  ASSERT_TRUE(publishing.migrate()) << "once more changes nothing";
  publishing.sql("insert into schema_version (version, name, program) values (99, 'x', '99')");
  for (LiveService::Words const& words : {LiveService::Words{"--once"}, {"migrate"}, {"usage"}})
  {
    Outcome const newer = publishing.run(words);
    EXPECT_EQ(newer.exitCode, 1);
    EXPECT_THAT(newer.errors, HasSubstr("the schema of the database is of version 99, and this "
                                        "program knows version "));
  }
  publishing.sql("delete from schema_version where version > 1");
  EXPECT_THAT(publishing.once().errors, HasSubstr("\"tqpublish migrate\" brings it there"));
}

TEST(PublishRightsTest, ARoleWritesAnotherReadsAndWhatIsTakenAwayIsNamed)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.postgres().create());
  ASSERT_TRUE(publishing.postgres().start());
  publishing.sql("create role publisher login; create role asker login");
  publishing.sql("revoke temporary on database postgres from public");
  ASSERT_EQ(publishing.run({"migrate", "--writer", "publisher", "--reader", "asker"}).exitCode, 0);
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  publishing.user = "publisher";
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.awaitSql("select count(*) from item", "1")) << publishing.log();
  EXPECT_EQ(publishing.sql("set role asker; select count(*) from known"), "1");
  EXPECT_EQ(publishing.sql("select bool_or(has_table_privilege('asker', oid, 'insert, update, "
                           "delete')) from pg_class where relnamespace = 'public'::regnamespace"),
            "f");

  publishing.sql("revoke insert on item from publisher");
  storeIn(service, "web2", "probe", itemsWith({{"a", "2"}}));
  ASSERT_TRUE(publishing.process().awaitError("PostgreSQL does not allow it: permission denied "
                                              "for table item"));
  EXPECT_EQ(publishing.sql("select count(*) from discovery"), "1")
      << "nothing of that pass is kept";
  publishing.sql("grant insert on item to publisher");
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "2"));
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

// Only root may mount a small disk; for others the table itself says that there is no space.
TEST(PublishRightsTest, AFullDiskUnderPostgresIsNamedAndWaitedFor)
{
  LiveService service;
  Publishing publishing(service);
  TempDir small;
  PostgresServer& postgres = publishing.postgres();
  ASSERT_TRUE(postgres.create());
  std::string const space = small / "space";
  if (geteuid() == 0)
  {
    std::filesystem::permissions(small.path(), std::filesystem::perms(0755));
    std::filesystem::create_directory(space);
    std::string const user = std::to_string(PostgresServer::UNPRIVILEGED);
    ASSERT_TRUE(postgres.start({"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
                                "mount -t tmpfs -o size=12m,mode=0700,uid=" + user +
                                    ",gid=" + user + " none " + space + " && exec \"$@\"",
                                "sh"}));
    postgres.sql("create tablespace small location '" + space + "'");
    ASSERT_TRUE(publishing.migrate());
    postgres.sql("alter table payload set tablespace small");
  }
  else
  {
    ASSERT_TRUE(postgres.start() && publishing.migrate());
    postgres.sql("create function full_disk() returns trigger language plpgsql as $$ begin "
                 "if length(new.content) > 1000000 then raise exception using "
                 "errcode = '53100', message = 'could not extend file: No space left on device'; "
                 "end if; return new; end $$; "
                 "create trigger full_disk before insert on payload for each row "
                 "execute function full_disk()");
  }
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.awaitSql("select stale from master", "f"));

  // What cannot be made shorter.
  std::string noise;
  for (unsigned i = 0, state = 1; i < 15'000'000; ++i)
  {
    state = state * 1664525 + 1013904223;
    noise += static_cast<char>('0' + (state >> 26));
  }
  storeIn(service, "large", "probe", noise);
  ASSERT_TRUE(publishing.process().awaitError("PostgreSQL has no space left: "))
      << publishing.log();
  EXPECT_EQ(publishing.sql("select count(*) from discovery"), "0");
  removeFrom(service, "large", "probe");
  storeIn(service, "small", "probe", itemsWith({{"a", "1"}}));
  EXPECT_TRUE(publishing.awaitSql("select host from known", "small")) << publishing.log();
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

TEST(PublishRightsTest, TheConfigurationIsCheckedAndNoPasswordIsTaken)
{
  LiveService service;
  Publishing publishing(service, "HISTORY_DAYS = 0\nPUBLISH_INTERVAL = soon\n");
  Outcome const checked = publishing.run({"--check-config"});
  EXPECT_EQ(checked.exitCode, 2);
  EXPECT_THAT(checked.errors, HasSubstr("\"HISTORY_DAYS\" is \"0\""));
  service.configure("PUBLISH_MASTERS = a\n");
  EXPECT_EQ(publishing.run({"--check-config"}).exitCode, 0);
  EXPECT_EQ(publishing.run({"--password", "secret"}).exitCode, 2);
}
