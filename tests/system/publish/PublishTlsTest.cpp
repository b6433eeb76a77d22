// tqpublish and a PostgreSQL behind TLS.

#include "tests/support/Certificates.h"
#include "tests/system/publish/PublishTesting.h"

using namespace tqtest;

TEST(PublishTlsTest, OnlyAServerThatProvesItsNameIsTalkedTo)
{
  LiveService service;
  Publishing publishing(service);
  CertificateAuthority authority;
  CertificateAuthority const stranger("Stranger");
  PostgresServer& postgres = publishing.postgres();
  ASSERT_TRUE(postgres.create() && postgres.serveTls(authority, "db1.example.net") &&
              postgres.start() && publishing.migrate());
  TempDir desk;
  auto const connectTo = [&](std::string const& host, CertificateAuthority const& trusted)
  {
    trusted.writeTo(desk / "ca.pem");
    writeText(desk / "service", "[fleet]\nhost=" + host + "\nhostaddr=127.0.0.1\nport=" +
                                    std::to_string(postgres.port()) +
                                    "\ndbname=postgres\nuser=owner\nsslmode=verify-full\n"
                                    "sslrootcert=" +
                                    (desk / "ca.pem") + '\n');
  };
  publishing.more = {{"PGSERVICE", "fleet"}, {"PGSERVICEFILE", desk / "service"}};
  ASSERT_TRUE(service.start());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));

  connectTo("db1.example.net", stranger);
  ASSERT_TRUE(publishing.start());
  std::string const told = "The database cannot be kept current, which is tried again: "
                           "PostgreSQL cannot be reached: connection to server at "
                           "\"127.0.0.1\", port " +
                           std::to_string(postgres.port()) + " failed: ";
  EXPECT_TRUE(publishing.process().awaitError(told + "SSL error: certificate verify failed"))
      << publishing.log();
  connectTo("db2.example.net", authority);
  EXPECT_TRUE(publishing.process().awaitError(told +
                                              "server certificate for \"db1.example.net\" does not "
                                              "match host name \"db2.example.net\""))
      << publishing.log();
  EXPECT_EQ(publishing.sql("select count(*) from master"), "0");

  connectTo("db1.example.net", authority);
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "1")) << publishing.log();
  EXPECT_TRUE(publishing.process().awaitError("The database is current again"));
  EXPECT_EQ(publishing.sql("select ssl from pg_stat_ssl join pg_stat_activity using (pid) "
                           "where application_name = 'tqpublish'"),
            "t");
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

TEST(PublishTlsTest, aRenewedCertificateIsShownToMastersFromTheReloadOn)
{
  TempDir files;
  CertificateAuthority authority;
  authority.writeTo(files / "ca.pem");
  authority.issue(files.path(), "service", wishFor(LiveService::NAME));
  authority.issue(files.path(), "publisher", wishFor("former"));
  LiveService service;
  Publishing publishing(service, tlsLines("only", files.path(), "service") +
                                     "ALLOW_READ = " + LiveService::NAME + ", renewed\n");
  ASSERT_TRUE(publishing.create());
  storeIn(service, "web1", "probe", itemsWith({{"a", "1"}}));
  ASSERT_TRUE(service.start()) << service.log();
  service.configure("PUBLISH_INTERVAL = 1s\n" + tlsLines("only", files.path(), "publisher"));
  ASSERT_TRUE(publishing.start()) << publishing.log();
  EXPECT_TRUE(service.process().awaitError("(former): ")) << service.log();
  EXPECT_EQ(publishing.sql("select count(*) from item"), "0");

  authority.issue(files.path(), "publisher", wishFor("renewed"));
  publishing.process().sendSignal(SIGHUP);
  EXPECT_TRUE(publishing.awaitSql("select count(*) from item", "1")) << publishing.log();
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
  EXPECT_EQ(service.stop(), 0) << service.log();
}
