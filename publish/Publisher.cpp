#include "publish/Publisher.h"

#include "publish/Lists.h"
#include "publish/PublishLog.h"
#include "publish/Retention.h"

#include <algorithm>
#include <chrono>

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "Publisher";
constexpr double FIRST_PAUSE = 0.5; // seconds
constexpr double LONGEST_PAUSE = 60;
constexpr double LOCK_PAUSE = 1;
constexpr double CLEANING = 3600;

double nowInSeconds()
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

Publisher::Publisher(Settings const& settings, Stop const& stop, Tell tell)
    : m_settings(settings), m_stop(stop), m_tell(std::move(tell))
{
  for (std::string const& master : settings.masters)
    m_masters.push_back(std::make_unique<Followed>(Followed{Follower(master, settings, stop)}));
}

std::string Publisher::run(bool once)
{
  while (!m_stop.requested())
  {
    try
    {
      if (!m_database)
        if (std::string complaint = connect(); !complaint.empty() || m_stop.requested())
          return complaint;
      double const begin = nowInSeconds();
      passes();
      m_tell("The last pass over " + std::to_string(m_masters.size()) + " masters took " +
             std::to_string(nowInSeconds() - begin) + " seconds");
      cleanUp();
      if (!m_told.empty())
        OZF_LOG(getPublishLogger(), 1, SOURCE, "Publisher::run", "The database is current again");
      m_told.clear();
      m_pause = 0;
      if (once)
        return {};
      m_stop.wait(m_settings.interval);
    }
    catch (...)
    {
      fail(failureInHand());
      m_pause = std::clamp(2 * m_pause, FIRST_PAUSE, LONGEST_PAUSE);
      m_stop.wait(m_pause);
    }
  }
  return {};
}

std::string Publisher::connect()
{
  auto database = std::make_unique<Database>();
  if (std::string complaint = schemaComplaint(database->schemaVersion()); !complaint.empty())
    return complaint;
  while (!database->tryLock())
  {
    if (!m_waitTold)
      OZF_LOG(getPublishLogger(), 1, SOURCE, "Publisher::connect",
              "Another tqpublish works on this database; waiting for its end");
    m_waitTold = true;
    if (m_stop.wait(LOCK_PAUSE))
      return {};
  }
  m_waitTold = false;
  // It may have been another version's that had it.
  if (std::string complaint = schemaComplaint(database->schemaVersion()); !complaint.empty())
    return complaint;
  database->prepare();
  markUnfollowed(*database, m_settings.masters);
  for (auto const& each : m_masters)
    each->follower.load(*database);
  m_database = std::move(database);
  OZF_LOG(getPublishLogger(), 1, SOURCE, "Publisher::connect",
          "Works on the database " << m_database->connection().dbname() << " as "
                                   << m_database->connection().username());
  return {};
}

// Masters are listed side by side and written one after another: of two transactions that write
// payloads that both masters have, each might wait for the other. A master that is away is tried
// less and less often.
void Publisher::passes()
{
  double const now = nowInSeconds();
  std::vector<Followed*> due;
  std::vector<Follower*> followers;
  for (auto const& each : m_masters)
    if (now >= each->due)
    {
      due.push_back(each.get());
      followers.push_back(&each->follower);
    }
  Lists lists(std::move(followers));
  while (auto const number = lists.next())
  {
    Followed& each = *due[*number];
    bool const isThere = each.follower.write();
    each.pause = isThere ? 0 : std::clamp(2 * each.pause, FIRST_PAUSE, LONGEST_PAUSE);
    each.due = nowInSeconds() + each.pause;
  }
}

void Publisher::cleanUp()
{
  if (m_stop.requested() || (m_cleaned != 0 && nowInSeconds() < m_cleaned + CLEANING))
    return;
  removeOld(*m_database, m_settings.historyDays, m_stop);
  m_cleaned = nowInSeconds();
}

void Publisher::fail(std::string const& text)
{
  m_database.reset();
  if (text != m_told)
    OZF_LOG(getPublishLogger(), 1, SOURCE, "Publisher::fail",
            "The database cannot be kept current, which is tried again: " << text);
  m_told = text;
}

} // namespace Publish
