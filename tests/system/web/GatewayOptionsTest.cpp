// Where the gateway listens, and whom it answers.

#include "tests/support/Certificates.h"
#include "tests/support/CoreOfProcess.h"
#include "tests/support/NotifySocket.h"
#include "tests/system/web/GatewayTesting.h"

#include <filesystem>
#include <regex>

namespace
{

using namespace tqtest;
using testing::HasSubstr;

Outcome checkConfig(LiveService const& service)
{
  return runProgram(TQ_BIN_DIR "/tqdiscoweb", {"--check-config"},
                    {{"TESSARINE_ROOT", service.root()}});
}

Outcome startAnyhow(LiveService const& service)
{
  return runProgram(TQ_BIN_DIR "/tqdiscoweb", {}, {{"TESSARINE_ROOT", service.root()}});
}

} // namespace

TEST(GatewayOptionsTest, WhatOthersCanReachWantsATokenOrCertificates)
{
  LiveService service;
  for (char const* place : {"0.0.0.0:27580", "[::]:27580", "192.0.2.1:27580"})
  {
    service.configure(std::string("WEB_LISTEN = ") + place + "\n");
    Outcome const checked = checkConfig(service);
    EXPECT_EQ(checked.exitCode, 2);
    EXPECT_THAT(checked.errors, HasSubstr("WEB_TOKEN_FILE"));
    Outcome const started = startAnyhow(service);
    EXPECT_EQ(started.exitCode, 1);
    EXPECT_THAT(started.errors, HasSubstr("others than this host can reach"));
  }
  writeText(service / "token", "0123456789abcdef\n");
  std::filesystem::permissions(service / "token", std::filesystem::perms(0600));
  service.configure("WEB_LISTEN = 0.0.0.0:27580\nWEB_TOKEN_FILE = " + (service / "token") + "\n");
  Outcome const checked = checkConfig(service);
  EXPECT_EQ(checked.exitCode, 0) << checked.errors;
}

TEST(GatewayOptionsTest, MistakesOfTheConfigurationAreTold)
{
  LiveService service;
  writeText(service / "open", "0123456789abcdef\n");
  std::filesystem::permissions(service / "open", std::filesystem::perms(0644));
  writeText(service / "shared", "0123456789abcdef\n");
  std::filesystem::permissions(service / "shared", std::filesystem::perms(0602));
  for (auto const& [name, text] :
       {std::pair("short", "0123\n"), std::pair("two", "01234567 89abcdef\n"),
        std::pair("fifteen", "0123456789abcde\n")})
  {
    writeText(service / name, text);
    std::filesystem::permissions(service / name, std::filesystem::perms(0600));
  }
  for (auto const& [lines, message] : std::map<std::string, std::string>{
           {"WEB_LISTEN = localhost:80\n", "WEB_LISTEN"},
           {"WEB_LISTEN = relative/path\n", "WEB_LISTEN"},
           {"WEB_LISTEN = 127.0.0.1:0\n", "WEB_LISTEN"},
           {"WEB_TOKEN_FILE = " + (service / "open") + "\n", "can be read by everybody"},
           {"WEB_TOKEN_FILE = " + (service / "short") + "\n", "is no token"},
           {"WEB_TOKEN_FILE = " + (service / "two") + "\n", "is no token"},
           {"WEB_TOKEN_FILE = " + (service / "fifteen") + "\n", "16 characters at least"},
           {"WEB_TOKEN_FILE = " + (service / "missing") + "\n", "cannot be read"},
           {"WEB_TOKEN_FILE = " + service.root() + "\n", "is no regular file"},
           {"WEB_TLS_KEY = " + (service / "open") + "\n", "can be read by everybody"},
           {"WEB_TLS_KEY = " + (service / "shared") + "\n",
            "WEB_TLS_KEY: " + (service / "shared") + " may be changed by others: "},
           {"WEB_TLS_CA = " + (service / "shared") + "\n", "may be changed by others"},
           {"WEB_TLS_CERTIFICATE = " + (service / "shared") + "\n", "may be changed by others"},
           {"WEB_TOKEN_FILE = " + (service / "shared") + "\n", "may be changed by others"},
           {"WEB_TLS_CA = " + (service / "open") + "\n", "WEB_TLS_CA is of no use without"},
           {"WEB_TLS_CERTIFICATE = " + (service / "short") + "\n",
            "WEB_TLS_KEY are wanted together"},
           {"WEB_MASTER_SHARE = 0\n", "WEB_MASTER_SHARE"}})
  {
    service.configure(lines);
    Outcome const checked = checkConfig(service);
    EXPECT_EQ(checked.exitCode, 2) << lines;
    EXPECT_THAT(checked.errors, HasSubstr(message)) << lines;
  }
  EXPECT_EQ(runProgram(TQ_BIN_DIR "/tqdiscoweb", {"--nonsense"}).exitCode, 2);
}

// A fresh installation names none, and its service manager starts again what ends.
TEST(GatewayOptionsTest, WithoutAMasterItWaitsUntilOneIsNamed)
{
  LiveService service;
  Gateway gateway(service);
  std::string const path = service / "etc/tq.conf";
  std::string const named = readText(path);
  writeText(path, std::regex_replace(named, std::regex("^SERVER = "), "# SERVER = "));
  std::string const manager = service / "notify";
  NotifySocket notified(manager);
  ASSERT_TRUE(gateway.launch("main: Waiting for a master: " + path, {{"NOTIFY_SOCKET", manager}}))
      << gateway.log();
  EXPECT_THAT(gateway.log(), HasSubstr("neither WEB_MASTERS nor SERVER is there"));
  EXPECT_TRUE(notified.await("READY=1\nSTATUS=Waiting for a master: "));
  EXPECT_EQ(checkConfig(service).exitCode, 2);

  writeText(path, named);
  EXPECT_TRUE(gateway.process().awaitError("main: Started, version")) << gateway.log();
  EXPECT_EQ(gateway.get("/api/v1/status").json()["masters"].size(), 1U);
  EXPECT_EQ(occurrences(gateway.log(), "Waiting for a master"), 1U);
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayOptionsTest, WhatWaitsForAMasterStopsInOrderAndTellsOfMistakes)
{
  LiveService service;
  Gateway gateway(service);
  std::string const path = service / "etc/tq.conf";
  std::filesystem::remove(path);
  ASSERT_TRUE(gateway.launch("main: Waiting for a master: " + path)) << gateway.log();
  EXPECT_EQ(gateway.stop(), 0) << gateway.log();

  ASSERT_TRUE(gateway.launch("main: Waiting for a master: " + path)) << gateway.log();
  writeText(path, "WEB_LISTEN = 0.0.0.0:27580\n");
  ASSERT_TRUE(gateway.process().wait());
  EXPECT_EQ(gateway.process().exitCode(), 1);
  EXPECT_THAT(gateway.log(), HasSubstr("others than this host can reach"));
}

TEST(GatewayOptionsTest, APortThatIsTakenFailsTheStart)
{
  LiveService service;
  service.configure("WEB_LISTEN = 127.0.0.1:" + std::to_string(service.port()) + "\n");
  ASSERT_TRUE(service.start());
  Outcome const started = startAnyhow(service);
  EXPECT_EQ(started.exitCode, 1);
  EXPECT_THAT(started.errors, HasSubstr("Unable to listen at 127.0.0.1 port"));
  EXPECT_EQ(service.stop(), 0);
}

TEST(GatewayOptionsTest, ATokenIsWantedOfEverybody)
{
  LiveService service;
  writeText(service / "token", "0123456789abcdef\n");
  std::filesystem::permissions(service / "token", std::filesystem::perms(0600));
  Gateway gateway(service, "WEB_TOKEN_FILE = " + (service / "token") + "\n");
  ASSERT_TRUE(gateway.start()) << gateway.log();
  for (char const* target : {"/api/v1/status", "/", "/api/v1/openapi.json", "/api/v1/events"})
  {
    HttpAnswer const refused = gateway.get(target);
    EXPECT_EQ(refused.status, 401) << target;
    EXPECT_THAT(refused.header("WWW-Authenticate"), HasSubstr("Basic")) << target;
  }
  EXPECT_EQ(refusalsOf(gateway, 401), "");
  EXPECT_EQ(gateway.get("/api/v1/status", "Authorization: Bearer 0123456789abcdef\r\n").status,
            200);
  EXPECT_EQ(gateway.get("/api/v1/status", "Authorization: Bearer 0123456789abcdeg\r\n").status,
            401);
  // Others reach it by whatever name they have for this host.
  HttpConnection named(gateway.port());
  named.send("GET /api/v1/status HTTP/1.1\r\nHost: backup.example\r\nConnection: close\r\n"
             "Authorization: Bearer 0123456789abcdef\r\n\r\n");
  EXPECT_EQ(HttpAnswer(named.readToEnd()).status, 200);
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayOptionsTest, ASocketOfTheFileSystemServesAsWell)
{
  LiveService service;
  std::string const path = service / "web.socket";
  Gateway gateway(service);
  service.configure("WEB_LISTEN = " + path + "\n");
  ASSERT_TRUE(gateway.start()) << gateway.log();
  HttpConnection connection(path);
  ASSERT_TRUE(connection.connected());
  connection.send("GET /api/v1/status HTTP/1.1\r\nHost: whatever\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(HttpAnswer(connection.readToEnd()).status, 200);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0660));
  // One at which somebody takes connections is not replaced, nor is what is no socket.
  Outcome const second = startAnyhow(service);
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.errors, HasSubstr("Unable to listen at " + path));
  EXPECT_TRUE(HttpConnection(path).connected());
  std::string const file = service / "file";
  writeText(file, "of somebody");
  service.configure("WEB_LISTEN = " + file + "\n");
  EXPECT_EQ(startAnyhow(service).exitCode, 1);
  EXPECT_EQ(readText(file), "of somebody");
  service.configure("WEB_LISTEN = " + path + "\n");
  // One that was left behind by a process that was killed is replaced.
  gateway.process().sendSignal(SIGKILL);
  EXPECT_TRUE(gateway.process().wait());
  EXPECT_TRUE(std::filesystem::exists(path));
  ASSERT_TRUE(gateway.start()) << gateway.log();
  EXPECT_EQ(gateway.stop(), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
}

namespace
{

// The status that a client gets over TLS, who shows the certificate of that name in the
// folder; or why it gets none.
std::string statusOverTls(std::string const& folder, unsigned short port, std::string const& name)
{
  std::string const program = "import http.client, ssl\n"
                              "context = ssl.create_default_context(cafile='" +
                              folder + "/ca.pem')\n" +
                              (name.empty() ? ""
                                            : "context.load_cert_chain('" + folder + "/" + name +
                                                  ".pem', '" + folder + "/" + name + ".key')\n") +
                              "connection = http.client.HTTPSConnection('127.0.0.1', " +
                              std::to_string(port) +
                              ", context=context)\n"
                              "connection.request('GET', '/api/v1/status')\n"
                              "print(connection.getresponse().status)\n";
  Outcome const outcome = runProgram("/usr/bin/python3", {"-c", program});
  return outcome.exitCode == 0 ? outcome.output : outcome.errors;
}

} // namespace

TEST(GatewayOptionsTest, WithAuthoritiesOfClientsTheirCertificatesAreWanted)
{
  LiveService service;
  CertificateAuthority authority;
  CertificateAuthority stranger("Another authority");
  authority.writeTo(service / "ca.pem");
  authority.issue(service.root(), "web");
  authority.issue(service.root(), "client");
  stranger.issue(service.root(), "stranger");
  std::filesystem::permissions(service / "web.key", std::filesystem::perms(0600));
  Gateway gateway(service, "WEB_TLS_CERTIFICATE = " + (service / "web.pem") +
                               "\nWEB_TLS_KEY = " + (service / "web.key") +
                               "\nWEB_TLS_CA = " + (service / "ca.pem") + "\n");
  EXPECT_EQ(checkConfig(service).exitCode, 0) << checkConfig(service).errors;
  ASSERT_TRUE(gateway.start()) << gateway.log();
  EXPECT_EQ(statusOverTls(service.root(), gateway.port(), "client"), "200\n");
  EXPECT_EQ(statusOverTls(service.root(), gateway.port(), ""), "403\n");
  EXPECT_NE(statusOverTls(service.root(), gateway.port(), "stranger"), "200\n");
  EXPECT_EQ(gateway.stop(), 0);
}

TEST(GatewayOptionsTest, ACrashLeavesTheKeyBehindOnlyWhereThatIsWanted)
{
  allowCores();
  LiveService service;
  CertificateAuthority().issue(service.root(), "web");
  auto const core = [&service](std::string const& lines)
  {
    Gateway gateway(service, lines);
    EXPECT_TRUE(gateway.start()) << gateway.log();
    std::string const text = coreOf(gateway.process().pid());
    EXPECT_EQ(gateway.stop(), 0);
    return text;
  };
  std::string const key = "WEB_TLS_CERTIFICATE = " + (service / "web.pem") +
                          "\nWEB_TLS_KEY = " + (service / "web.key") + "\n";
  std::string const before = core("");
  EXPECT_NE(before.substr(0, 9), std::string(NO_CORE, 9));
  EXPECT_EQ(core(key), NO_CORE);
  EXPECT_EQ(core(key + "CORE_DUMPS = yes\n"), before);
}
