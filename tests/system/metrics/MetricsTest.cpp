// tqdiscoctl metrics beside a live service, and the alarms that are made of it.

#include "tests/support/CommandTest.h"

#include "ozf/base/SystemError.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <netinet/in.h>
#include <regex>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

constexpr char PROMTOOL[] = "/usr/bin/promtool";

Outcome promtool(Words const& words) { return runProgram(PROMTOOL, words); }

// As the shell hands it over.
Outcome checkMetrics(std::string const& file)
{
  return runProgram("/bin/sh",
                    {"-c", "exec " + std::string(PROMTOOL) + " check metrics <\"$0\"", file});
}

class MetricsTest : public CommandTest
{
protected:
  MetricsTest() : CommandTest(LiveService::WITH_EXPLORERS)
  {
    m_service.configure("EXPLORER_INTERVAL.service = 1s\nEXPLORER_EXPIRY.service = 1h\n"
                        "LIMIT_PEER_CONNECTIONS = 12\n");
  }

  void SetUp() override
  {
    CommandTest::SetUp();
    ASSERT_TRUE(
        eventually([this] { return metrics().find("tqdisco_build_info") != std::string::npos; }))
        << m_service.log();
  }

  std::string metrics() const { return run({"metrics"}).output; }

  // Of the series, "tqdisco_up"; -1 when it is not there.
  double value(std::string const& series) const
  {
    std::string const text = metrics();
    auto const at = text.find("\n" + series + " ");
    return at == std::string::npos ? -1 : std::stod(text.substr(at + series.size() + 2));
  }

  // Whether that holds of it before long: the service tells of itself in its passes.
  bool becomes(std::string const& series, std::function<bool(double)> const& holds) const
  {
    return eventually([&] { return holds(value(series)); });
  }
};

// "tqdisco_up gauge" of each family of a text.
std::set<std::string> familiesIn(std::string const& text)
{
  std::set<std::string> families;
  std::regex const type("(?:^|\n)# TYPE ([^\n]+)");
  for (std::sregex_iterator each(text.begin(), text.end(), type), end; each != end; ++each)
    families.insert((*each)[1]);
  return families;
}

// The same of the tables of the document.
std::set<std::string> familiesDocumented()
{
  std::set<std::string> families;
  std::string const text = readText(TQ_SOURCE_DIR "/docs/metrics.md");
  std::regex const row("\n\\| `(tqdisco_[a-z_]+)` \\| ([a-z]+) \\|");
  for (std::sregex_iterator each(text.begin(), text.end(), row), end; each != end; ++each)
    families.insert(std::string((*each)[1]) + ' ' + std::string((*each)[2]));
  return families;
}

TEST_F(MetricsTest, whatAServiceTellsIsWhatPrometheusReads)
{
  std::string const file = m_service / "tqdisco.prom";
  ASSERT_EQ(run({"metrics", "--textfile", file}).exitCode, 0);
  Outcome const judged = checkMetrics(file);
  EXPECT_EQ(judged.exitCode, 0) << judged.output << judged.errors;
  EXPECT_THAT(judged.output + judged.errors, IsEmpty());

  std::string const text = readText(file);
  EXPECT_THAT(text, HasSubstr("\ntqdisco_up 1\n"));
  EXPECT_THAT(text, HasSubstr("\ntqdisco_build_info{version=\"" TQ_VERSION "\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("\ntqdisco_hosts 1\n"));
  EXPECT_THAT(text, HasSubstr("\ntqdisco_hosts_silent 0\n"));
  EXPECT_THAT(text, HasSubstr("\ntqdisco_discoveries{authority=\"service\",type=\"client\"} 1\n"));
  EXPECT_THAT(text, Not(HasSubstr(LiveService::NAME))) << "no host is a label";
  std::set<std::string> const found = familiesIn(text);
  std::set<std::string> wanted = familiesDocumented();
  // Without TLS and limits that were met.
  wanted.erase("tqdisco_certificate_expiry_timestamp_seconds gauge");
  wanted.erase("tqdisco_limit_met_total counter");
  EXPECT_EQ(found, wanted);
}

TEST_F(MetricsTest, aTextfileIsReplacedInOneStepAndForEverybody)
{
  std::string const file = m_service / "tqdisco.prom";
  writeText(file, "old");
  fs::permissions(file, fs::perms::owner_read);
  struct stat before
  {
  };
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  mode_t const mask = umask(077);
  Outcome const outcome = run({"metrics", "--textfile", file});
  umask(mask);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, IsEmpty());
  struct stat after
  {
  };
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 07777, 0644U);
  EXPECT_THAT(readText(file), HasSubstr("tqdisco_up 1\n"));
  for (auto const& entry : fs::directory_iterator(m_service.root()))
    EXPECT_THAT(entry.path().filename().string(), Not(HasSubstr("tqdisco.prom.")));

  Outcome const failed = run({"metrics", "--textfile", m_service / "missing/tqdisco.prom"});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_THAT(failed.errors, HasSubstr("missing/tqdisco.prom: No such file or directory"));
}

TEST_F(MetricsTest, aServiceThatIsAwayIsToldAsDown)
{
  std::string const file = m_service / "tqdisco.prom";
  ASSERT_EQ(m_service.stop(), 0);
  Outcome const outcome = run({"metrics", "--textfile", file});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_THAT(outcome.errors, HasSubstr("tqdisco"));
  EXPECT_EQ(familiesIn(readText(file)), std::set<std::string>{"tqdisco_up gauge"});
  EXPECT_THAT(readText(file), HasSubstr("\ntqdisco_up 0\n"));
  EXPECT_EQ(checkMetrics(file).exitCode, 0);
  ASSERT_TRUE(m_service.start()) << m_service.log();
}

TEST_F(MetricsTest, writesAndThoseThatFailAreCounted)
{
  double const stored = value("tqdisco_writes_total{result=\"stored\"}");
  EXPECT_GT(stored, 0) << "its own explorers write";
  EXPECT_EQ(value("tqdisco_writes_total{result=\"failed\"}"), 0);
  store("web1", "racks", "<DiscoveredItems/>");
  EXPECT_EQ(run({"put", "web1", "racks", m_service / "payload", "--priority", "9"}).exitCode, 1);
  // A database that is away.
  fs::rename(m_service.database(), m_service / "away");
  EXPECT_EQ(run({"put", "web2", "racks", m_service / "payload"}).exitCode, 1);
  fs::rename(m_service / "away", m_service.database());
  EXPECT_TRUE(
      becomes("tqdisco_writes_total{result=\"failed\"}", [](double now) { return now >= 1; }));
  EXPECT_EQ(value("tqdisco_writes_total{result=\"outranked\"}"), 1);
  EXPECT_GT(value("tqdisco_writes_total{result=\"stored\"}"), stored);
  EXPECT_GT(value("tqdisco_write_duration_seconds_sum"), 0);
  EXPECT_GE(value("tqdisco_write_duration_seconds_count"), stored);
}

// A peer that connects and says nothing.
Quillon::Tessarine::Ozf::UniqueFd connectionTo(unsigned short port)
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(port);
  Quillon::Tessarine::Ozf::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  return fd;
}

bool isEnded(Quillon::Tessarine::Ozf::UniqueFd const& fd)
{
  char c = 0;
  ssize_t const count = recv(fd.get(), &c, 1, MSG_PEEK | MSG_DONTWAIT);
  return count == 0 || (count < 0 && errno != EAGAIN);
}

TEST_F(MetricsTest, connectionsAndThoseThatAreRefusedAreCounted)
{
  EXPECT_EQ(value("tqdisco_connections_refused_total"), 0);
  double const accepted = value("tqdisco_connections_accepted_total");
  std::vector<Quillon::Tessarine::Ozf::UniqueFd> peers;
  for (int i = 0; i < 20; ++i)
    peers.push_back(connectionTo(m_service.port()));
  EXPECT_TRUE(eventually([&] { return std::count_if(peers.begin(), peers.end(), isEnded) >= 8; }));
  EXPECT_THAT(m_service.log(), HasSubstr("its address has too many"));
  peers.resize(8);
  EXPECT_TRUE(becomes("tqdisco_connections_refused_total", [](double now) { return now >= 8; }));
  EXPECT_TRUE(becomes("tqdisco_connections_accepted_total",
                      [accepted](double now) { return now >= accepted + 8; }));
  EXPECT_GE(value("tqdisco_connections"), 8);
  EXPECT_GE(value("tqdisco_limit_met_total{limit=\"LIMIT_PEER_CONNECTIONS\"}"), 8);
}

TEST_F(MetricsTest, namesThatSomebodyStoresBreakNothing)
{
  for (std::string const& name : {std::string("a\"} 1\ntqdisco_up 0\n#"), std::string("\\"),
                                  std::string("\u202E<script>"), std::string(1000, 'x')})
    store("web1", name, "<DiscoveredItems/>");
  std::string const file = m_service / "tqdisco.prom";
  ASSERT_EQ(run({"metrics", "--textfile", file}).exitCode, 0);
  Outcome const judged = checkMetrics(file);
  EXPECT_EQ(judged.exitCode, 0) << judged.output << judged.errors;
  EXPECT_THAT(readText(file), HasSubstr("\ntqdisco_up 1\n"));
}

TEST_F(MetricsTest, withTheNameOfAMasterTheFiguresAreTheMasters)
{
  TempDir const elsewhere;
  std::string const place = "127.0.0.1:" + std::to_string(m_service.port());
  Outcome const outcome = runProgram(TQ_BIN_DIR "/tqdiscoctl", {"-m", place, "metrics"},
                                     {{"TESSARINE_ROOT", elsewhere.path()}});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr("\ntqdisco_hosts 1\n"));
  EXPECT_THAT(outcome.output, HasSubstr("tqdisco_explorer_failing{explorer=\"host\""));
  Outcome const unknown = run({"metrics", "--host", "nobody"});
  EXPECT_EQ(unknown.exitCode, 4);
  EXPECT_THAT(unknown.errors, HasSubstr("the service of nobody tells nothing of itself"));
  EXPECT_THAT(unknown.output, Not(HasSubstr("tqdisco_build_info")));
}

TEST(AlertRulesTest, goOffWhenTheyShould)
{
  TempDir const dir;
  fs::copy_file(TQ_SOURCE_DIR "/docs/alerts.yml", dir / "alerts.yml");
  fs::copy_file(TQ_SOURCE_DIR "/tests/system/metrics/alerts.test.yml", dir / "alerts.test.yml");
  Outcome const checked = promtool({"check", "rules", dir / "alerts.yml"});
  EXPECT_EQ(checked.exitCode, 0) << checked.output << checked.errors;
  Outcome const tested = promtool({"test", "rules", dir / "alerts.test.yml"});
  EXPECT_EQ(tested.exitCode, 0) << tested.output << tested.errors;
}

TEST(AlertRulesTest, eachIsTestedAndAsksForMetricsThatThereAre)
{
  std::string const rules = readText(TQ_SOURCE_DIR "/docs/alerts.yml");
  std::string const tests = readText(TQ_SOURCE_DIR "/tests/system/metrics/alerts.test.yml");
  std::regex const alert("- alert: (\\w+)");
  std::size_t count = 0;
  for (std::sregex_iterator each(rules.begin(), rules.end(), alert), end; each != end; ++each)
  {
    ++count;
    EXPECT_THAT(tests, HasSubstr("alertname: " + std::string((*each)[1]) + "\n"));
  }
  EXPECT_GE(count, 8U);
  std::set<std::string> known;
  for (std::string const& family : familiesDocumented())
    known.insert(family.substr(0, family.find(' ')));
  std::regex const metric("tqdisco_[a-z_]+");
  for (std::sregex_iterator each(rules.begin(), rules.end(), metric), end; each != end; ++each)
    EXPECT_EQ(known.count(each->str()), 1U) << each->str();
}

} // namespace
