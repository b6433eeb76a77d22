// tqdiscoweb and masters that take TLS alone.

#include "tests/support/Certificates.h"
#include "tests/system/web/GatewayTesting.h"

using namespace tqtest;

TEST(GatewayTlsTest, aRenewedCertificateIsShownFromTheReloadOn)
{
  constexpr long DAY = 86400;
  TempDir files;
  CertificateAuthority authority;
  authority.writeTo(files / "ca.pem");
  authority.issue(files.path(), "service", wishFor(LiveService::NAME));
  Wish wish = wishFor("former");
  wish.end = 5 * DAY + 60;
  authority.issue(files.path(), "gateway", wish);
  LiveService service;
  Gateway gateway(service, tlsLines("only", files.path(), "service") +
                               "ALLOW_READ = " + LiveService::NAME + ", renewed\n");
  ASSERT_TRUE(service.start()) << service.log();
  service.configure("WEB_LISTEN = 127.0.0.1:" + std::to_string(gateway.port()) +
                    "\nWEB_LIST_INTERVAL = 1s\n" + tlsLines("only", files.path(), "gateway"));
  ASSERT_TRUE(gateway.start()) << gateway.log();
  EXPECT_TRUE(
      gateway.process().awaitError("The certificate " + (files / "gateway.pem") + " ends on "))
      << gateway.log();
  EXPECT_TRUE(service.process().awaitError("(former): queryDiscoveries is for ALLOW_READ"))
      << service.log();

  authority.issue(files.path(), "gateway", wishFor("renewed"));
  gateway.process().sendSignal(SIGHUP);
  EXPECT_TRUE(gateway.process().awaitError("Took the certificate " + (files / "gateway.pem") +
                                           ", which ends on "))
      << gateway.log();
  EXPECT_TRUE(gateway.awaitState("up")) << gateway.log();

  writeText(files / "gateway.pem", "no certificate");
  gateway.process().sendSignal(SIGHUP);
  EXPECT_TRUE(gateway.process().awaitError("TLS stays as it was: ")) << gateway.log();
  EXPECT_TRUE(gateway.awaitState("up")) << gateway.log();
  EXPECT_EQ(gateway.stop(), 0) << gateway.log();
  EXPECT_EQ(service.stop(), 0) << service.log();
}
