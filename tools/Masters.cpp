#include "tools/Masters.h"

#include "discovery/RemoteDBDrain.h"
#include "ozf/orb/Orb.h"
#include "tools/Output.h"
#include "tools/Records.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <thread>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

void Masters::choose(std::vector<std::string> const& names, Limits limits)
{
  m_limits = limits;
  m_all.clear();
  for (std::string const& name : names)
  {
    Master& master = m_all.emplace_back();
    master.name = name;
    master.place = placeOf(name);
  }
}

std::size_t Masters::missing() const
{
  return static_cast<std::size_t>(std::count_if(
      m_all.begin(), m_all.end(), [](Master const& each) { return !each.missing.empty(); }));
}

std::string Masters::places() const
{
  std::string text;
  for (Master const& each : m_all)
    text += (text.empty() ? "" : ", ") + each.place;
  return text;
}

std::vector<std::string> Masters::reasons() const
{
  std::vector<std::string> reasons;
  for (Master const& each : m_all)
    reasons.push_back(each.missing);
  return reasons;
}

void Masters::tellMissing(std::vector<std::string> const& before) const
{
  for (std::size_t i = 0; i < m_all.size(); ++i)
    if (!m_all[i].missing.empty() && before[i].empty())
      complain("the master " + m_all[i].place + " is left out: " + m_all[i].missing);
    else if (m_all[i].missing.empty() && !before[i].empty())
      complain("the master " + m_all[i].place + " answers again");
}

void Masters::each(Work const& work)
{
  auto const before = reasons();
  Progress progress("Waiting for " + places());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < m_all.size(); ++i)
    if (Master& master = m_all[i]; master.missing.empty())
      threads.emplace_back(
          [&master, &work, i, this]
          {
            ReadDeadline const deadline(std::chrono::seconds(m_limits.answer));
            try
            {
              master.missing = work(master, i);
            }
            catch (CORBA::Exception const& exception)
            {
              master.refused = CORBA::NO_PERMISSION::_downcast(&exception) != nullptr;
              master.missing = reasonOf(exception);
            }
            catch (std::exception const& exception)
            {
              master.missing = exception.what();
            }
          });
  for (std::thread& thread : threads)
    thread.join();
  progress.clear();
  tellMissing(before);
}

void Masters::dropRepeated(std::vector<std::string> const& addresses)
{
  std::vector<Master> kept;
  std::vector<std::string> known;
  for (std::size_t i = 0; i < m_all.size(); ++i)
  {
    auto const same =
        addresses[i].empty() ? known.end() : std::find(known.begin(), known.end(), addresses[i]);
    if (same == known.end())
    {
      known.push_back(addresses[i]);
      kept.push_back(std::move(m_all[i]));
      continue;
    }
    remark("(" + m_all[i].name + " leads to the same address as " +
           kept[static_cast<std::size_t>(same - known.begin())].name + ", which is asked once)");
  }
  m_all = std::move(kept);
}

int Masters::reach(Orb& orb, long seconds)
{
  auto const before = reasons();
  Progress progress("Connecting to " + places());
  std::vector<std::string> addresses(m_all.size());
  std::vector<char> relays(m_all.size()); // no bits: threads write side by side
  bool const first = std::all_of(m_all.begin(), m_all.end(),
                                 [](Master const& each)
                                 { return CORBA::is_nil(each.service) && each.missing.empty(); });
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < m_all.size(); ++i)
  {
    Master& master = m_all[i];
    if (!CORBA::is_nil(master.service) && master.missing.empty())
      continue;
    threads.emplace_back(
        [&, i]
        {
          using Clock = std::chrono::steady_clock;
          auto const begin = Clock::now();
          Reached reached = tqdiscoctl::reach(orb, master.name, std::min(seconds, m_limits.call));
          master.milliseconds = static_cast<long>(
              std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
          addresses[i] = reached.addresses;
          master.refused = reached.result == EXIT_REFUSED;
          master.service = reached.service;
          master.missing = reached.result == EXIT_DONE ? ""
                           : reached.addresses.empty()
                               ? "its name cannot be resolved: " + reached.reason
                               : reached.reason;
          if (first && reached.result == EXIT_DONE)
            relays[i] = static_cast<char>(lookAtLister(master.service, true).relays);
        });
  }
  for (std::thread& thread : threads)
    thread.join();
  progress.clear();
  for (std::size_t i = 0; i < m_all.size(); ++i)
    if (relays[i] != 0)
      complain("the service at " + m_all[i].place +
               " is not a master's: it is a client's, which lists its master's discoveries but "
               "has none of them to show");
  tellMissing(before);
  if (first)
    dropRepeated(addresses);
  if (missing() < m_all.size())
    return EXIT_DONE;
  return whyNone();
}

// The number of the one that listed the record; size() when that is none of these.
std::size_t Masters::listerOf(Record const& record) const
{
  auto const found = std::find_if(m_all.begin(), m_all.end(),
                                  [&](Master const& each)
                                  { return record.source && each.name == record.source->master; });
  return static_cast<std::size_t>(found - m_all.begin());
}

bool Masters::isMissing(Record const& record) const
{
  std::size_t const lister = listerOf(record);
  return lister < m_all.size() && !m_all[lister].missing.empty();
}

bool Masters::answers(Record const& record)
{
  std::size_t const lister = listerOf(record);
  if (lister == m_all.size() || !m_all[lister].missing.empty())
    return false;
  auto const before = reasons();
  Master& master = m_all[lister];
  try
  {
    if (!master.service->_non_existent())
      return true;
    master.missing = "it is shutting down";
  }
  catch (CORBA::Exception const& exception)
  {
    master.missing = reasonOf(exception);
  }
  tellMissing(before);
  return false;
}

int Masters::whyNone() const
{
  return std::all_of(m_all.begin(), m_all.end(), [](Master const& each) { return each.refused; })
             ? EXIT_REFUSED
             : EXIT_NOT_REACHABLE;
}

int Masters::conclude(int exitCode) const
{
  std::size_t const gone = missing();
  if (gone == 0 || exitCode == EXIT_USAGE)
    return exitCode;
  if (gone < m_all.size())
    return EXIT_PARTLY;
  return exitCode == EXIT_FAILED ? whyNone() : exitCode;
}

} // namespace tqdiscoctl
