#include "tools/Metrics.h"

#include "tools/Format.h"
#include "tools/Output.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <prometheus/text_serializer.h>
#include <set>
#include <string_view>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace
{

using Labels = std::vector<ClientMetric::Label>;

// What a payload says is anybody's text, and so are the names of authorities: no
// reader's store of series shall grow without end by it.
constexpr std::size_t MOST_AUTHORITIES_NAMED = 100;
constexpr std::size_t MOST_EXPLORERS = 200;
constexpr std::size_t MOST_LIMITS = 50;
constexpr std::size_t LONGEST_LABEL = 128;
constexpr char OTHERS[] = "(others)";

constexpr double MICROSECOND = 1e-6; // in seconds

ServiceFigures::Count countIn(Item const& item, char const* name)
{
  std::string const* const text = item.find(name);
  std::uint64_t number = 0;
  if (text == nullptr)
    return std::nullopt;
  auto const [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  return error == std::errc() && end == text->data() + text->size() ? std::optional(number)
                                                                    : std::nullopt;
}

std::string textIn(Item const& item, char const* name)
{
  std::string const* const text = item.find(name);
  return text == nullptr ? std::string() : *text;
}

std::optional<double> scaled(ServiceFigures::Count count, double unit)
{
  return count ? std::optional(static_cast<double>(*count) * unit) : std::nullopt;
}

ServiceFigures::Explorer explorerOf(Item const& item)
{
  ServiceFigures::Explorer explorer;
  explorer.name = item.name;
  explorer.type = textIn(item, "Type");
  explorer.lastRun = timeOf(item, "LastRun");
  explorer.lastSuccess = timeOf(item, "LastSuccess");
  explorer.seconds = scaled(countIn(item, "LastDuration"), MICROSECOND);
  explorer.runs = countIn(item, "Runs");
  explorer.failures = countIn(item, "Failures");
  explorer.failing = hasFailed(item);
  return explorer;
}

// One metric under its name, with a series for each thing that has it.
class Family
{
public:
  Family(std::string name, std::string help, MetricType type)
  {
    m_family.name = "tqdisco_" + std::move(name);
    m_family.help = std::move(help);
    m_family.type = type;
  }

  void add(Labels const& labels, double value)
  {
    ClientMetric metric;
    metric.label = labels;
    (m_family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    m_family.metric.push_back(std::move(metric));
  }

  void add(Labels const& labels, std::optional<double> value)
  {
    if (value)
      add(labels, *value);
  }

  void add(Labels const& labels, ServiceFigures::Count count) { add(labels, scaled(count, 1)); }

  void add(Labels const& labels, OzfObjTime const& time)
  {
    if (!time.isZero())
      add(labels, static_cast<double>(time.seconds()));
  }

  void add(ClientMetric metric) { m_family.metric.push_back(std::move(metric)); }

  MetricFamily take() { return std::move(m_family); }

private:
  MetricFamily m_family;
};

Family gauge(char const* name, char const* help) { return {name, help, MetricType::Gauge}; }
Family counter(char const* name, char const* help) { return {name, help, MetricType::Counter}; }

std::string labelValue(std::string const& text)
{
  return cutToWidth(shown(text.substr(0, 4 * LONGEST_LABEL)), LONGEST_LABEL);
}

// All families; each figure has its place in one of them.
class Gathering
{
public:
  void add(Figures const& figures)
  {
    m_common.clear();
    if (!figures.master.empty())
      m_common.push_back({"master", labelValue(figures.master)});
    m_up.add(m_common, figures.up ? 1.0 : 0.0);
    if (figures.fleet)
      add(*figures.fleet);
    if (figures.service)
      add(*figures.service);
  }

  std::vector<MetricFamily> take()
  {
    std::vector<MetricFamily> families;
    for (Family* const family :
         {&m_build,       &m_up,       &m_start,     &m_told,      &m_discoveries,
          &m_hosts,       &m_silent,   &m_oldest,    &m_expiring,  &m_lastRun,
          &m_lastSuccess, &m_duration, &m_runs,      &m_failures,  &m_failing,
          &m_stored,      &m_writes,   &m_writeTime, &m_iterators, &m_writers,
          &m_connections, &m_taken,    &m_refused,   &m_limits,    &m_certificate})
      if (MetricFamily taken = family->take(); !taken.metric.empty())
        families.push_back(std::move(taken));
    return families;
  }

private:
  Labels with(Labels const& labels) const
  {
    Labels all = m_common;
    all.insert(all.end(), labels.begin(), labels.end());
    return all;
  }

  // Those with the most by name, the others together.
  void addDiscoveries(std::map<Fleet::Authority, std::size_t> const& discoveries)
  {
    using Entry = std::pair<Fleet::Authority, std::size_t>;
    std::vector<Entry> entries(discoveries.begin(), discoveries.end());
    std::stable_sort(entries.begin(), entries.end(),
                     [](Entry const& a, Entry const& b) { return a.second > b.second; });
    // Names that are equal once they are cut are one.
    std::map<std::pair<std::string, std::string>, std::size_t> series;
    for (auto const& [authority, count] : entries)
    {
      std::pair<std::string, std::string> key{authority.first.empty() ? OTHERS
                                                                      : labelValue(authority.first),
                                              labelValue(formatType(authority.second))};
      if (series.size() >= MOST_AUTHORITIES_NAMED && series.count(key) == 0)
        key = {OTHERS, "any"};
      series[key] += count;
    }
    for (auto const& [key, count] : series)
      m_discoveries.add(with({{"authority", key.first}, {"type", key.second}}),
                        static_cast<double>(count));
  }

  void add(FleetFigures const& fleet)
  {
    addDiscoveries(fleet.discoveries);
    m_hosts.add(m_common, static_cast<double>(fleet.hosts));
    m_silent.add(m_common, static_cast<double>(fleet.silent));
    m_oldest.add(m_common, fleet.oldestReport);
    m_expiring.add(m_common, static_cast<double>(fleet.expiring));
  }

  void addExplorers(std::vector<ServiceFigures::Explorer> const& explorers)
  {
    std::set<std::pair<std::string, std::string>> known;
    for (auto const& explorer : explorers)
    {
      std::string const name = labelValue(explorer.name);
      std::string const type = labelValue(explorer.type);
      if (known.size() >= MOST_EXPLORERS || !known.emplace(name, type).second)
        continue;
      Labels const labels = with({{"explorer", name}, {"type", type}});
      m_lastRun.add(labels, explorer.lastRun);
      m_lastSuccess.add(labels, explorer.lastSuccess);
      m_duration.add(labels, explorer.seconds);
      m_runs.add(labels, explorer.runs);
      m_failures.add(labels, explorer.failures);
      m_failing.add(labels, explorer.failing ? 1.0 : 0.0);
    }
  }

  void addWriteTime(ServiceFigures const& service)
  {
    if (!service.writesTimed || !service.writeSeconds)
      return;
    ClientMetric metric;
    metric.label = m_common;
    metric.histogram.sample_count = *service.writesTimed;
    metric.histogram.sample_sum = *service.writeSeconds;
    for (auto const& within : service.writesWithin)
      if (within.count)
        metric.histogram.bucket.push_back({*within.count, within.seconds});
    metric.histogram.bucket.push_back(
        {*service.writesTimed, std::numeric_limits<double>::infinity()});
    m_writeTime.add(std::move(metric));
  }

  void addLimits(ServiceFigures const& service)
  {
    std::set<std::string> known;
    for (auto const& [key, times] : service.limitsMet)
      if (std::string const name = labelValue(key);
          known.size() < MOST_LIMITS && known.insert(name).second)
        m_limits.add(with({{"limit", name}}), static_cast<double>(times));
  }

  void add(ServiceFigures const& service)
  {
    if (!service.version.empty())
      m_build.add(with({{"version", labelValue(service.version)}}), 1.0);
    m_start.add(m_common, service.start);
    m_told.add(m_common, service.told);
    m_certificate.add(m_common, service.certificateEnd);
    addExplorers(service.explorers);
    m_stored.add(m_common, service.stored);
    m_writes.add(with({{"result", "stored"}}), service.writesStored);
    m_writes.add(with({{"result", "outranked"}}), service.writesOutranked);
    m_writes.add(with({{"result", "failed"}}), service.writesFailed);
    addWriteTime(service);
    m_iterators.add(m_common, service.iterators);
    m_writers.add(m_common, service.writers);
    m_connections.add(m_common, service.connections);
    m_taken.add(m_common, service.connectionsTaken);
    m_refused.add(m_common, service.connectionsRefused);
    addLimits(service);
  }

  Labels m_common;
  Family m_build = gauge("build_info", "The version of the service; always 1.");
  Family m_up = gauge("up", "Whether the service that was asked answered.");
  Family m_start = gauge("start_time_seconds", "When the service was started.");
  Family m_told =
      gauge("told_timestamp_seconds", "When the service told of itself what is said here of it.");
  Family m_discoveries = gauge("discoveries", "The discoveries that the master lists.");
  Family m_hosts = gauge("hosts", "The hosts whose explorers have told something.");
  Family m_silent =
      gauge("hosts_silent", "Those of them whose service does not tell of itself any more.");
  Family m_oldest = gauge("oldest_report_timestamp_seconds",
                          "The latest discovery of the host that has told nothing for longest.");
  Family m_expiring =
      gauge("discoveries_expiring", "The discoveries that expire within an hour unless renewed.");
  Family m_lastRun =
      gauge("explorer_last_run_timestamp_seconds", "When the explorer of this host ran last.");
  Family m_lastSuccess = gauge("explorer_last_success_timestamp_seconds",
                               "When the explorer of this host last ran well.");
  Family m_duration =
      gauge("explorer_last_duration_seconds", "How long the last run of the explorer took.");
  Family m_runs = counter("explorer_runs_total", "The runs of the explorer.");
  Family m_failures = counter("explorer_failures_total", "Those of them that failed.");
  Family m_failing =
      gauge("explorer_failing", "Whether the last run of the explorer failed: 1 or 0.");
  Family m_stored =
      gauge("stored_discoveries", "The discoveries in the database of the service's host.");
  Family m_writes = counter("writes_total", "The writes into the database, by what came of them.");
  Family m_writeTime{"write_duration_seconds",
                     "How long it took to persist a write, flushing to the disk included.",
                     MetricType::Histogram};
  Family m_iterators = gauge("open_iterators", "The lists that callers have open.");
  Family m_writers = gauge("open_writers", "The discoveries that callers are writing.");
  Family m_connections = gauge("connections", "The connections that peers have open.");
  Family m_taken = counter("connections_accepted_total", "The connections that were let in.");
  Family m_refused = counter("connections_refused_total", "The connections that were not let in.");
  Family m_limits = counter("limit_met_total", "How often peers met a limit.");
  Family m_certificate =
      gauge("certificate_expiry_timestamp_seconds", "When the certificate of the service ends.");
};

} // namespace

FleetFigures figuresOf(Fleet const& fleet, SilentHosts const& silent)
{
  return {fleet.authorities(), fleet.hosts(), silent.size(), fleet.expiring(),
          fleet.oldestReport()};
}

ServiceFigures figuresOf(ServiceState const& state)
{
  static constexpr char const* WITHIN[] = {"WritesWithin1ms", "WritesWithin10ms",
                                           "WritesWithin100ms", "WritesWithin1s",
                                           "WritesWithin10s"};
  Item const& service = state.service;
  ServiceFigures figures;
  figures.version = textIn(service, "Version");
  figures.told = state.record.discovered;
  figures.start = timeOf(service, "StartTime");
  figures.certificateEnd = timeOf(service, "CertificateEnd");
  figures.stored = countIn(service, "StoredDiscoveries");
  figures.connections = countIn(service, "Connections");
  figures.connectionsTaken = countIn(service, "ConnectionsTaken");
  figures.connectionsRefused = countIn(service, "ConnectionsRefused");
  figures.iterators = countIn(service, "OpenIterators");
  figures.writers = countIn(service, "OpenWriters");
  figures.writesStored = countIn(service, "WritesStored");
  figures.writesOutranked = countIn(service, "WritesOutranked");
  figures.writesFailed = countIn(service, "WritesFailed");
  figures.writesTimed = countIn(service, "WritesTimed");
  figures.writeSeconds = scaled(countIn(service, "WriteTime"), MICROSECOND);
  for (std::size_t i = 0; i < figures.writesWithin.size(); ++i)
    figures.writesWithin[i].count = countIn(service, WITHIN[i]);
  for (Item const& explorer : state.explorers)
    figures.explorers.push_back(explorerOf(explorer));
  for (Item const& limit : state.limits)
    figures.limitsMet.emplace_back(limit.name, countIn(limit, "TimesMet").value_or(0));
  return figures;
}

std::vector<MetricFamily> gather(std::vector<Figures> const& all)
{
  Gathering gathering;
  for (Figures const& figures : all)
    gathering.add(figures);
  return gathering.take();
}

std::string metricsText(std::vector<MetricFamily> const& families)
{
  return prometheus::TextSerializer().Serialize(families);
}

} // namespace tqdiscoctl
