#include "web/ListPolling.h"

#include "discovery/RemoteDBDrain.h"
#include "tools/ExitCodes.h"
#include "tools/Hosts.h"
#include "tools/Metrics.h"
#include "web/Plan.h"
#include "web/WebLog.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <set>

namespace Web
{

using namespace tqdiscoctl;
using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "ListPolling";
constexpr std::chrono::seconds LONGEST_LIST(120);
constexpr double LONGEST_RETRY = 30;                       // seconds
constexpr double MOST_OF_FIRST = 0.5;                      // seconds
constexpr std::size_t MOST_LISTED = std::size_t(64) << 20; // bytes

using PollClock = std::chrono::steady_clock;

double secondsSince(PollClock::time_point begin)
{
  return std::chrono::duration<double>(PollClock::now() - begin).count();
}

} // namespace

ListPolling::~ListPolling()
{
  {
    std::lock_guard const guard(m_mutex);
    m_ending = true;
  }
  m_changed.notify_all();
  for (std::thread& thread : m_threads)
    thread.join();
}

void ListPolling::start()
{
  for (std::size_t i = 0; i < m_list.look()->masters.size(); ++i)
    m_threads.emplace_back([this, i] { run(i); });
}

double ListPolling::pause(Pace const& pace, double seconds)
{
  return std::max(pace.interval, seconds / pace.share - seconds);
}

// The seconds until the next.
double ListPolling::listOnce(std::size_t master, std::string const& name)
{
  Selection selection;
  selection.master = name;
  Records records;
  records.reserve(m_list.look()->masters[master].records->size());
  std::size_t bytes = 0;
  std::string why;
  std::string ownName;
  DiscoverySvc::ReadDeadline const deadline(LONGEST_LIST);
  auto const begin = PollClock::now();
  int const result = visitRecords(
      selection,
      [&](Record record)
      {
        if (ownName.empty())
          ownName = record.source->ownName;
        bytes += sizeof record + record.subject.capacity() + record.authority.capacity();
        records.push_back(std::move(record));
        return bytes <= MOST_LISTED;
      },
      true, &why);
  double const seconds = secondsSince(begin);
  bool const wasUp = m_list.look()->masters[master].state == MasterList::UP;
  double const before = m_list.look()->masters[master].listSeconds; // 0: there was none
  if (!isListed(result))
  {
    if (why == NOT_QUERIED)
      why = "it cannot be reached, or does not answer";
    if (wasUp || m_list.look()->masters[master].state == MasterList::STARTING)
      OZF_LOG(getWebLogger(), 1, SOURCE, "ListPolling::run",
              "The master " << name << " does not give its list: " << why);
    m_list.fail(master, why);
    // One that is back is found soon.
    return std::clamp(seconds, m_pace.interval, std::max(m_pace.interval, LONGEST_RETRY));
  }
  if (!wasUp)
    OZF_LOG(getWebLogger(), 1, SOURCE, "ListPolling::run",
            "The master " << name << " gives its list, of " << records.size() << " discoveries");
  readService(master, records, ownName);
  m_list.update(master, std::move(records), ownName, result == EXIT_DONE, seconds);
  // For a list after its start the master reads its disk, which says little of the next one: a
  // single slow list does not put that off for long.
  return pause(m_pace, std::min(seconds, before > 0 ? before : MOST_OF_FIRST));
}

// Where it has told something new. This is not left to those who ask for metrics: a master that
// does not answer would have them wait.
void ListPolling::readService(std::size_t master, Records const& records,
                              std::string const& ownName)
{
  auto const own = std::find_if(records.begin(), records.end(),
                                [&ownName](Record const& record)
                                {
                                  return record.subject == ownName &&
                                         record.authority == SERVICE_AUTHORITY &&
                                         record.type == DiscoverySvc::AT_TQUCLIENT;
                                });
  auto const known = m_list.look()->masters[master].service;
  if (known && own != records.end() && known->told == own->discovered)
    return;
  std::shared_ptr<ServiceFigures const> figures;
  if (own != records.end())
  {
    DiscoverySvc::ReadDeadline const deadline(LONGEST_CALL);
    if (ServiceState const state = readState(*own); state.complete)
      figures = std::make_shared<ServiceFigures const>(figuresOf(state));
  }
  if (figures != known)
    m_list.setService(master, figures);
}

void ListPolling::run(std::size_t master)
{
  std::string const name = m_list.look()->masters[master].master;
  for (;;)
  {
    double wait = m_pace.interval;
    try
    {
      wait = listOnce(master, name);
      m_list.setInterval(master, wait);
    }
    catch (std::exception const& exception)
    {
      OZF_LOG(getWebLogger(), 1, SOURCE, "ListPolling::run",
              "Caught exception listing " << name << ": " << exception.what());
    }
    std::unique_lock lock(m_mutex);
    if (m_changed.wait_for(lock, std::chrono::duration<double>(wait), [this] { return m_ending; }))
      return;
  }
}

} // namespace Web
