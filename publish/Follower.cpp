#include "publish/Follower.h"

#include "discovery/RemoteDBDrain.h"
#include "ozf/base/Wildcard.h"
#include "publish/PublishLog.h"
#include "publish/SqlText.h"
#include "tools/ExitCodes.h"

#include <algorithm>
#include <chrono>

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;
using namespace tqdiscoctl;

namespace
{

constexpr char SOURCE[] = "Follower";
constexpr std::chrono::seconds LONGEST_LIST(120);

// A round's records are in memory, and those of some other masters.
constexpr std::size_t MOST_CHANGED = 10000;
constexpr std::size_t MOST_CHANGED_BYTES = std::size_t(4) << 20;
constexpr std::size_t BATCH = 1000;
constexpr std::size_t BATCH_GONE = 1000;

// Times on the wire are whole seconds: what was listed may be written once more in the same one.
constexpr double SETTLED = 1.1; // seconds

// A master tells in whole seconds how long a record still holds, and its answer takes time.
constexpr std::int64_t SLACK = 10; // seconds

// A payload that could not be read is tried again in the first pass, and each so many passes on.
constexpr unsigned RETRY_PASSES = 12;

constexpr std::int64_t CLOCK_SLACK = 300; // seconds

using PassClock = std::chrono::steady_clock;

bool isSame(KnownRecord const& known, std::int64_t discovered, std::int64_t expires)
{
  return known.discovered == discovered && known.expires <= expires + SLACK &&
         expires <= known.expires + SLACK;
}

std::string nameOf(Record const& record)
{
  return "subject " + record.subject + ", authority " + record.authority + ", type " +
         std::to_string(static_cast<int>(record.type));
}

Half halfOf(std::string const& hex)
{
  Half half{};
  std::string digits = hex;
  std::erase(digits, '-');
  for (std::size_t i = 0; i < half.size() && 2 * i + 2 <= digits.size(); ++i)
    half[i] = static_cast<unsigned char>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
  return half;
}

KnownRecord knownOf(Record const& record)
{
  KnownRecord known;
  known.key =
      keyOf(record.subject, record.authority, static_cast<int>(record.type), record.onDemand());
  known.discovered = record.discovered.seconds();
  known.expires = record.discovered.isZero() ? 0 : record.expires.seconds();
  known.seen = true;
  return known;
}

} // namespace

Follower::Follower(std::string master, Settings const& settings, Stop const& stop)
    : m_master(std::move(master)), m_settings(settings), m_stop(stop)
{
}

void Follower::load(Database& database)
{
  m_database = &database;
  m_known = {};
  pqxx::work work(database.connection());
  work.exec_prepared("name_master", m_master);
  m_id = work.exec_prepared1("master", m_master)[0].as<int>();
  std::string last(32, '0');
  for (;;)
  {
    auto const rows = work.exec_prepared("known", m_id, last);
    for (auto const& row : rows)
    {
      KnownRecord known;
      known.key = halfOf(row[0].as<std::string>());
      known.digest = halfOf(row[1].as<std::string>(""));
      known.discovered = row[2].as<std::int64_t>();
      known.expires = row[3].as<std::int64_t>();
      known.unread = row[4].as<bool>();
      m_known.add(known);
    }
    if (rows.empty())
      break;
    last = rows.back()[0].as<std::string>();
  }
  m_known.sort();
  m_isFirst = m_known.size() == 0;
  work.commit();
}

void Follower::list(Stop const& end)
{
  ++m_passes;
  ask(end, true);
}

void Follower::ask(Stop const& end, bool isFirst)
{
  bool const retries = isFirst && m_passes % RETRY_PASSES == 1;
  DiscoverySvc::ReadDeadline const deadline(LONGEST_LIST);
  m_round = {};
  m_round.asked = OzfObjTime::now().seconds();
  m_known.beginPass();
  std::size_t bytes = 0;
  Selection selection;
  selection.master = m_master;
  std::string why;
  int const result = visitRecords(
      selection,
      [&](Record record)
      {
        take(std::move(record), retries, bytes);
        return !m_stop.requested() && !end.requested();
      },
      true, &why);
  m_round.complete = result == EXIT_DONE;
  if (!isListed(result))
    m_round.why = why == NOT_QUERIED ? "it cannot be reached, or does not answer" : why;
  else if (!m_round.changed.empty())
    m_stop.wait(SETTLED);
}

void Follower::take(Record record, bool retries, std::size_t& bytes)
{
  Round& round = m_round;
  ++round.listed;
  KnownRecord const now = knownOf(record);
  if (now.discovered > round.newest)
  {
    round.newest = now.discovered;
    round.newestSubject = record.subject;
  }
  if (KnownRecord* const known = m_known.find(now.key))
  {
    known->seen = true;
    if (isSame(*known, now.discovered, now.expires) && !(known->unread && retries))
      return;
  }
  bytes += sizeof record + record.subject.capacity() + record.authority.capacity();
  round.more = round.more || round.changed.size() == MOST_CHANGED || bytes > MOST_CHANGED_BYTES;
  if (!round.more)
    round.changed.push_back(std::move(record));
}

bool Follower::write()
{
  if (m_stop.requested())
    return true;
  if (!m_round.why.empty())
  {
    markAway(m_round.why);
    return false;
  }
  auto const begin = PassClock::now();
  m_descriptions = {};
  pqxx::work work(m_database->connection());
  std::size_t const written = writeRounds(work);
  std::vector<Half> gone;
  if (!m_round.more && m_round.complete && !m_round.lost && !m_stop.requested())
    gone = m_known.unseen();
  markGone(work, gone);
  work.exec_prepared("heartbeat", m_id, m_round.complete, m_ahead);
  work.commit();
  m_known.remove(gone);
  OZF_LOG(getPublishLogger(), 4, SOURCE, "Follower::write",
          m_master << ": " << m_round.listed << " listed, " << written << " written, "
                   << gone.size() << " gone, in "
                   << std::chrono::duration<double>(PassClock::now() - begin).count()
                   << " seconds");
  if (m_round.lost)
    markAway("it stopped answering");
  else
    tellHeard();
  bool const isThere = !m_round.lost;
  m_round = {};
  return isThere;
}

// Returns how many records were written. What a round has written is known from then on: where the
// transaction fails, all is loaded again.
std::size_t Follower::writeRounds(pqxx::work& work)
{
  std::size_t written = 0;
  for (;;)
  {
    writeRound(work);
    written += m_written.size();
    m_known.apply(m_written);
    watchClock();
    m_listed = m_round.asked;
    m_isFirst = m_isFirst && m_round.more;
    if (!m_round.more || m_written.empty() || m_round.lost || m_stop.requested())
      return written;
    OZF_LOG(getPublishLogger(), 4, SOURCE, "Follower::writeRounds",
            "The master " << m_master << " is listed again for the rest");
    ask(m_stop, false);
    if (!m_round.why.empty())
    {
      m_round.lost = true;
      return written;
    }
  }
}

void Follower::writeRound(pqxx::work& work)
{
  m_written.clear();
  std::span<Record const> left = m_round.changed;
  while (!left.empty() && !m_round.lost && !m_stop.requested())
  {
    auto const batch = left.first(std::min(BATCH, left.size()));
    left = left.subspan(batch.size());
    writeBatch(work, batch);
  }
}

// What refuses the values of one record does not keep the others out.
void Follower::writeBatch(pqxx::work& work, std::span<Record const> batch)
{
  std::size_t const before = m_written.size();
  try
  {
    pqxx::subtransaction part(work, "batch");
    BatchWriter writer(part, m_id, m_isFirst);
    Fetcher fetcher(batch, m_settings.payload);
    for (Record const& record : batch)
    {
      if (m_stop.requested() || m_round.lost)
        break;
      m_round.lost = !writeOne(writer, record, fetcher.next());
    }
    writer.finish();
    part.commit();
    return;
  }
  catch (pqxx::sql_error const& failure)
  {
    if (!isOfValues(failure))
      throw;
    m_written.resize(before);
    if (batch.size() == 1)
      noteRefused(work, batch.front(), failureText(failure));
  }
  if (batch.size() == 1)
    return;
  std::size_t const half = batch.size() / 2;
  for (auto const part : {batch.first(half), batch.subspan(half)})
    if (!m_round.lost)
      writeBatch(work, part);
}

// False when the master is lost, and nothing is staged.
bool Follower::writeOne(BatchWriter& writer, Record const& record, Fetcher::Payload payload)
{
  BatchWriter::Report report;
  report.known = knownOf(record);
  report.keepHistory = keepsHistory(record);
  if (!record.onDemand() && !payload.isThere)
  {
    if (!answers(record))
      return false;
    report.known.unread = true;
    report.problem = "the payload cannot be read, or has more than " +
                     std::to_string(m_settings.payload) + " bytes";
    OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::writeOne",
            "The payload of a discovery of "
                << m_master << " cannot be read, or is too large: " << nameOf(record));
  }
  else if (!record.onDemand())
  {
    report.digest = sha256Of(payload.bytes);
    std::copy_n(report.digest->begin(), report.known.digest.size(), report.known.digest.begin());
    KnownRecord const* const known = m_known.find(report.known.key);
    report.kept = known != nullptr && known->digest == report.known.digest && !known->unread;
    if (!report.kept)
      writePayload(writer, record, payload.bytes, report);
  }
  writer.record(record, report);
  m_written.push_back(report.known);
  return true;
}

void Follower::writePayload(BatchWriter& writer, Record const& record, std::string const& bytes,
                            BatchWriter::Report& report)
{
  writer.payload(*report.digest, bytes);
  Collection const collection = readCollection(
      record, bytes,
      [&](Item item) { writer.item(report.known.key, item, m_descriptions.of(record)); });
  if (collection.complete)
    return;
  report.problem = "the payload is no collection that can be read to its end";
  OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::writePayload",
          "The payload of a discovery of " << m_master
                                           << " cannot be parsed to its end: " << nameOf(record));
}

void Follower::noteRefused(pqxx::work& work, Record const& record, std::string const& why)
{
  OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::noteRefused",
          "A discovery of " << m_master << " is kept without its items: " << nameOf(record) << ": "
                            << why);
  BatchWriter::Report report;
  report.known = knownOf(record);
  report.known.unread = true;
  report.problem = why;
  pqxx::subtransaction part(work, "refused");
  BatchWriter writer(part, m_id, m_isFirst);
  writer.record(record, report);
  writer.finish();
  part.commit();
  m_written.push_back(report.known);
}

void Follower::markGone(pqxx::work& work, std::vector<Half> const& keys)
{
  for (std::size_t at = 0; at < keys.size(); at += BATCH_GONE)
  {
    std::string list = "{";
    for (std::size_t i = at; i < std::min(keys.size(), at + BATCH_GONE); ++i)
      list += (i == at ? "" : ",") + uuidText(keys[i]);
    work.exec_prepared("gone", m_id, list + '}');
  }
}

void Follower::markAway(std::string const& why)
{
  if (!m_isAway)
    OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::markAway",
            "The master " << m_master << " does not give its list: " << why);
  m_isAway = true;
  pqxx::work work(m_database->connection());
  work.exec_prepared("away", m_id, sqlText(why));
  work.commit();
}

void Follower::tellHeard()
{
  if (m_isAway || !m_wasHeard)
    OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::tellHeard",
            "The master " << m_master << " gives its list, of " << m_round.listed
                          << " discoveries");
  m_isAway = false;
  m_wasHeard = true;
}

// A clock that is ahead shows in the newest report. One that is behind shows in reports that came
// since the list before, and say that they are older than it.
void Follower::watchClock()
{
  std::int64_t const now = OzfObjTime::now().seconds();
  std::int64_t off = m_round.newest - now;
  std::string subject = m_round.newestSubject;
  if (off < CLOCK_SLACK)
  {
    std::int64_t newest = 0;
    for (Record const& record : m_round.changed)
      if (record.discovered.seconds() > newest)
      {
        newest = record.discovered.seconds();
        subject = record.subject;
      }
    bool const isKnown = m_listed != 0 && newest != 0;
    off = isKnown ? newest - m_listed : m_ahead;
    if (off > -CLOCK_SLACK)
      off = 0;
  }
  if ((off < 0) != (m_ahead < 0) || (off > 0) != (m_ahead > 0))
    OZF_LOG(getPublishLogger(), 1, SOURCE, "Follower::watchClock",
            (off == 0 ? "Clocks agree again: that of the master "
                      : "A clock is off: that of the master ")
                << m_master << ", or of who reports to it of " << subject << ", by " << off
                << " seconds");
  m_ahead = off;
}

bool Follower::answers(Record const& record) const
{
  Selection selection;
  selection.master = m_master;
  selection.subject = record.subject;
  selection.authority = record.authority;
  return isListed(visitRecords(
      selection, [](Record const&) { return true; }, true));
}

bool Follower::keepsHistory(Record const& record) const
{
  return std::none_of(m_settings.historyExcept.begin(), m_settings.historyExcept.end(),
                      [&record](std::string const& pattern)
                      { return wildcardcmp(pattern, record.authority, true) == 0; });
}

} // namespace Publish
