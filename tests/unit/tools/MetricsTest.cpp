#include "tools/Metrics.h"

#include "tests/support/ServiceFacts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace tqdiscoctl;
using testing::HasSubstr;
using testing::Not;

namespace
{

using Facts = Item::Facts;

ServiceState toldState()
{
  ServiceState state;
  state.record.discovered = OzfObjTime(1'800'000'000);
  state.service.facts = Facts{{"Version", "1.2"},
                              {"StartTime", "2026-01-01T10:00:00Z"},
                              {"CertificateEnd", "2026-01-02T10:00:00Z"},
                              {"StoredDiscoveries", "12"}};
  state.service.facts.insert(state.service.facts.end(), tqtest::SERVICE_LOAD_FACTS.begin(),
                             tqtest::SERVICE_LOAD_FACTS.end());
  Item host;
  host.name = "host";
  host.facts = Facts{{"Kind", "push"},
                     {"Type", "client"},
                     {"LastRun", "2026-01-01T10:00:05Z"},
                     {"LastSuccess", "2026-01-01T10:00:05Z"},
                     {"LastDuration", "250000"},
                     {"Runs", "9"},
                     {"Failures", "2"},
                     {"LastResult", "success"}};
  Item software;
  software.name = "software";
  software.facts = Facts{{"Kind", "push"}, {"Type", "client"}, {"LastResult", "opening failed"}};
  state.explorers = {host, software};
  Item limit;
  limit.name = "LIMIT_PEER_WRITERS";
  limit.facts = Facts{{"Kind", "limit"}, {"TimesMet", "7"}};
  state.limits = {limit};
  return state;
}

Figures figuresOfAll()
{
  Figures figures;
  figures.up = true;
  figures.fleet = FleetFigures{{{{"host", AT_TQUCLIENT}, 40}, {{"rack", AT_EXTSRC}, 3}},
                               41,
                               2,
                               7,
                               OzfObjTime(1'799'999'000)};
  figures.service = figuresOf(toldState());
  return figures;
}

std::string textOf(Figures const& figures) { return metricsText(gather({figures})); }

// Name and labels of each line that is no comment.
std::multiset<std::string> seriesIn(std::string const& text)
{
  std::multiset<std::string> series;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (!line.starts_with('#'))
      series.insert(line.substr(0, line.rfind(' ')));
  return series;
}

} // namespace

TEST(Metrics, tellWhatTheServiceAndTheListSay)
{
  std::string const text = textOf(figuresOfAll());
  for (char const* const line :
       {"tqdisco_build_info{version=\"1.2\"} 1",
        "tqdisco_up 1",
        "tqdisco_start_time_seconds 1767261600",
        "tqdisco_told_timestamp_seconds 1800000000",
        "tqdisco_discoveries{authority=\"host\",type=\"client\"} 40",
        "tqdisco_discoveries{authority=\"rack\",type=\"external\"} 3",
        "tqdisco_hosts 41",
        "tqdisco_hosts_silent 2",
        "tqdisco_oldest_report_timestamp_seconds 1799999000",
        "tqdisco_discoveries_expiring 7",
        "tqdisco_explorer_last_run_timestamp_seconds{explorer=\"host\",type=\"client\"} 1767261605",
        "tqdisco_explorer_last_success_timestamp_seconds{explorer=\"host\",type=\"client\"} "
        "1767261605",
        "tqdisco_explorer_last_duration_seconds{explorer=\"host\",type=\"client\"} 0.25",
        "tqdisco_explorer_runs_total{explorer=\"host\",type=\"client\"} 9",
        "tqdisco_explorer_failures_total{explorer=\"host\",type=\"client\"} 2",
        "tqdisco_explorer_failing{explorer=\"host\",type=\"client\"} 0",
        "tqdisco_explorer_failing{explorer=\"software\",type=\"client\"} 1",
        "tqdisco_stored_discoveries 12",
        "tqdisco_writes_total{result=\"stored\"} 30",
        "tqdisco_writes_total{result=\"outranked\"} 3",
        "tqdisco_writes_total{result=\"failed\"} 6",
        "tqdisco_write_duration_seconds_count 36",
        "tqdisco_write_duration_seconds_sum 1.5",
        "tqdisco_write_duration_seconds_bucket{le=\"0.001\"} 1",
        "tqdisco_write_duration_seconds_bucket{le=\"0.01\"} 20",
        "tqdisco_write_duration_seconds_bucket{le=\"0.1\"} 34",
        "tqdisco_write_duration_seconds_bucket{le=\"1\"} 35",
        "tqdisco_write_duration_seconds_bucket{le=\"10\"} 36",
        "tqdisco_write_duration_seconds_bucket{le=\"+Inf\"} 36",
        "tqdisco_open_iterators 2",
        "tqdisco_open_writers 1",
        "tqdisco_connections 4",
        "tqdisco_connections_accepted_total 70",
        "tqdisco_connections_refused_total 5",
        "tqdisco_limit_met_total{limit=\"LIMIT_PEER_WRITERS\"} 7",
        "tqdisco_certificate_expiry_timestamp_seconds 1767348000"})
    EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
  EXPECT_THAT(text, HasSubstr("# TYPE tqdisco_write_duration_seconds histogram\n"));
}

TEST(Metrics, whatIsNotToldIsNotThere)
{
  EXPECT_EQ(seriesIn(textOf(Figures())), std::multiset<std::string>{"tqdisco_up"});
  Figures old;
  old.up = true;
  ServiceState state;
  state.service.facts = Facts{{"Version", "1.0"}, {"Connections", "many"}, {"StartTime", "now"}};
  old.service = figuresOf(state);
  EXPECT_EQ(seriesIn(textOf(old)),
            (std::multiset<std::string>{"tqdisco_up", "tqdisco_build_info{version=\"1.0\"}"}));
}

// One series twice, and the reader throws all of it away.
TEST(Metrics, nothingThatSomebodyStoredBreaksOrRepeatsASeries)
{
  Figures figures = figuresOfAll();
  for (std::string const& name :
       {std::string("a\"} 1\ntqdisco_up 0\n#"), std::string("\\"), std::string(4096, 'x'),
        std::string(4096, 'x') + "y", std::string("\xff\xfe"), std::string("\u202Eevil"),
        std::string()})
  {
    figures.fleet->discoveries[{name, AT_EXTSRC}] = 1;
    for (int twice = 0; twice < 2; ++twice)
    {
      figures.service->explorers.push_back({name, name, {}, {}, {}, 1, 1, false});
      figures.service->limitsMet.emplace_back(name, 1);
    }
  }
  std::string const text = textOf(figures);
  std::multiset<std::string> const series = seriesIn(text);
  for (std::string const& each : series)
  {
    EXPECT_EQ(series.count(each), 1U) << each;
    EXPECT_TRUE(each.starts_with("tqdisco_")) << each;
    EXPECT_LT(each.size(), 600U);
  }
  EXPECT_THAT(text, Not(HasSubstr("\u202E")));
  EXPECT_THAT(text, HasSubstr("\ntqdisco_up 1\n"));
}

TEST(Metrics, seriesAreBoundedWhateverIsStored)
{
  Figures figures = figuresOfAll();
  figures.fleet->discoveries[{"host", AT_TQUCLIENT}] = 100'000;
  for (std::size_t i = 0; i < 1000; ++i)
  {
    figures.fleet->discoveries[{"authority" + std::to_string(i), AT_EXTSRC}] = 2;
    figures.service->explorers.push_back({std::to_string(i), "client", {}, {}, {}, 1, 1, false});
    figures.service->limitsMet.emplace_back(std::to_string(i), 1);
  }
  std::string const text = textOf(figures);
  EXPECT_LT(seriesIn(text).size(), 1500U);
  EXPECT_THAT(text, HasSubstr("tqdisco_discoveries{authority=\"host\",type=\"client\"} 100000\n"));
  EXPECT_THAT(text, HasSubstr("tqdisco_discoveries{authority=\"(others)\",type=\"any\"} "));
}

TEST(Metrics, mastersAreToldApartByTheirNames)
{
  Figures one = figuresOfAll();
  one.master = "backup1";
  Figures other;
  other.master = "backup2";
  std::string const text = metricsText(gather({one, other}));
  EXPECT_THAT(text, HasSubstr("tqdisco_up{master=\"backup1\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tqdisco_up{master=\"backup2\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("tqdisco_writes_total{master=\"backup1\",result=\"failed\"} 6\n"));
  std::size_t types = 0;
  for (std::size_t at = text.find("# TYPE tqdisco_up "); at != std::string::npos;
       at = text.find("# TYPE tqdisco_up ", at + 1))
    ++types;
  EXPECT_EQ(types, 1U) << "a family comes once";
}
