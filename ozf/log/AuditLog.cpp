#include "ozf/log/AuditLog.h"

#include "ozf/base/Display.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/log/RotatingFile.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <sys/time.h>
#include <utility>

namespace Quillon::Tessarine::Ozf
{
namespace
{

using Time = std::chrono::steady_clock::time_point;

constexpr char SOURCE[] = "AuditLog";
constexpr char OPERATION[] = "AuditLog::write";
constexpr std::chrono::minutes PERIOD(1);

// No name that is kept is longer; what is refused may be as long as a message.
constexpr std::size_t MOST_TEXT = 4096;
constexpr std::size_t MOST_NAMES = 16;

// Addresses whose refusals are counted apart; those of all others are one peer's.
constexpr std::size_t MOST_PEERS = 1024;

std::atomic<bool> on{false};
std::atomic<std::uint64_t> lostRecords{0};

struct Refusals
{
  Time since;
  std::uint64_t seen = 0;
};

struct State
{
  Time now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

  std::mutex mutex;
  std::optional<RotatingFile> file;
  AuditLog::Clock clock; // empty: the steady one
  std::map<std::string, Refusals> refusals;
  std::uint64_t missing = 0; // since the file could be written last
  Time nextComplaint;
};

// Never destroyed: calls may end after the statics of the process.
State& state()
{
  static auto* const instance = new State;
  return *instance;
}

// ---- the form of a line ----

void appendText(std::string& line, std::string const& text)
{
  std::string_view rest = text;
  bool const cut = rest.size() > MOST_TEXT;
  if (cut)
  {
    std::size_t length = MOST_TEXT;
    while (length > MOST_TEXT - 3 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
      --length;
    rest = rest.substr(0, length);
  }
  line += '"';
  // Quotes and backslashes are characters that may be shown.
  while (!rest.empty())
  {
    auto const special = std::min(rest.find_first_of("\"\\"), rest.size());
    line += displayText(rest.substr(0, special),
                        [](std::string& escaped, std::string_view bytes, char32_t character)
                        {
                          char32_t ignored = 0;
                          if (decodeUtf8(bytes, ignored) != 0)
                            appendUnits(escaped, character);
                          else
                            appendHex(escaped, "\\\\x", bytes); // a backslash, as JSON has it
                        });
    rest.remove_prefix(special);
    if (rest.empty())
      break;
    line += '\\';
    line += rest.front();
    rest.remove_prefix(1);
  }
  line += cut ? "...\"" : "\"";
}

void appendMember(std::string& line, char const* name, std::string const& value)
{
  line.append(",\"").append(name).append("\":");
  appendText(line, value);
}

std::string timeText()
{
  timeval now{};
  gettimeofday(&now, nullptr);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  char date[32];
  std::size_t const length = std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  std::string const micros = std::to_string(1000000 + now.tv_usec);
  return std::string(date, length) + '.' + micros.substr(1) + 'Z';
}

std::string lineOf(AuditRecord const& record)
{
  std::string line = "{\"time\":\"" + timeText() + '"';
  if (record.peer.empty())
    line += ",\"peer\":null";
  else
    appendMember(line, "peer", record.peer);
  line += ",\"name\":[";
  for (std::size_t i = 0; i < std::min(record.names.size(), MOST_NAMES); ++i)
  {
    line += i == 0 ? "" : ",";
    appendText(line, record.names[i]);
  }
  line += ']';
  appendMember(line, "operation", record.operation);
  appendMember(line, "subject", record.subject);
  appendMember(line, "authority", record.authority);
  appendMember(line, "result", record.refused ? "refused: " + record.result : record.result);
  return line += "}\n";
}

AuditRecord ownRecord(std::string const& peer, std::string const& result)
{
  AuditRecord record;
  record.peer = peer;
  record.operation = "audit";
  record.result = result;
  return record;
}

// ---- writing; the caller holds the lock ----

// What is to be told in the log once the lock is given up.
using Complaint = std::string;

// Adds one line, behind one that tells how many are missing before it.
void put(State& all, AuditRecord const& record, Complaint& complaint)
{
  std::string line;
  if (all.missing > 0)
    line = lineOf(ownRecord("", std::to_string(all.missing) + " records are missing here"));
  line += lineOf(record);
  if (int const error = all.file->append(line))
  {
    ++all.missing;
    ++lostRecords;
    if (Time const now = all.now(); now >= all.nextComplaint)
    {
      all.nextComplaint = now + PERIOD;
      complaint = "Unable to write the audit file " + all.file->path() + ": " + errorText(error) +
                  "; " + std::to_string(all.missing) + " records are missing so far";
    }
  }
  else if (all.missing > 0)
  {
    complaint = "The audit file " + all.file->path() + " is written again, " +
                std::to_string(all.missing) + " records are missing";
    all.missing = 0;
    all.nextComplaint = {};
  }
}

void tellLeftOut(State& all, bool whole, Complaint& complaint)
{
  Time const now = all.now();
  for (auto entry = all.refusals.begin(); entry != all.refusals.end();)
  {
    auto const& [peer, refusals] = *entry;
    if (!whole && now - refusals.since < PERIOD)
    {
      ++entry;
      continue;
    }
    if (refusals.seen > AuditLog::REFUSALS_A_MINUTE)
    {
      auto const seconds = std::chrono::ceil<std::chrono::seconds>(now - refusals.since).count();
      put(all,
          ownRecord(peer, std::to_string(refusals.seen - AuditLog::REFUSALS_A_MINUTE) +
                              " more refusals in " + std::to_string(seconds) + " seconds"),
          complaint);
    }
    entry = all.refusals.erase(entry);
  }
}

bool isLeftOut(State& all, AuditRecord const& record)
{
  if (!record.refused)
    return false;
  auto const known = all.refusals.find(record.peer);
  bool const apart = known != all.refusals.end() || all.refusals.size() < MOST_PEERS;
  Refusals& refusals = all.refusals[apart ? record.peer : std::string("others")];
  if (refusals.seen == 0)
    refusals.since = all.now();
  return ++refusals.seen > AuditLog::REFUSALS_A_MINUTE;
}

template <class Work>
void guarded(Work work) noexcept
{
  try
  {
    Complaint complaint;
    {
      State& all = state();
      std::lock_guard const guard(all.mutex);
      if (all.file)
        work(all, complaint);
    }
    if (!complaint.empty())
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION, complaint);
  }
  catch (std::exception const&)
  {
    AuditLog::noteLost(); // for want of memory
  }
}

} // namespace

void AuditLog::setFile(std::string const& path)
{
  // With the old file, what is to be told of it.
  guarded([](State& all, Complaint& complaint) { tellLeftOut(all, true, complaint); });
  std::string failure;
  {
    State& all = state();
    std::lock_guard const guard(all.mutex);
    all.file.reset();
    if (!path.empty())
    {
      all.file.emplace(path);
      if (int const error = all.file->open())
        failure = errorText(error);
    }
    all.nextComplaint = {};
    on = !path.empty();
  }
  if (!failure.empty())
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "AuditLog::setFile",
            "Unable to open the audit file " << path << ": " << failure);
}

bool AuditLog::isOn() noexcept { return on.load(std::memory_order_relaxed); }

void AuditLog::write(AuditRecord const& record) noexcept
{
  if (!isOn())
    return;
  guarded(
      [&record](State& all, Complaint& complaint)
      {
        tellLeftOut(all, false, complaint);
        if (!isLeftOut(all, record))
          put(all, record, complaint);
      });
}

void AuditLog::reportLeftOut() noexcept
{
  guarded([](State& all, Complaint& complaint) { tellLeftOut(all, false, complaint); });
}

void AuditLog::refuseConnection(std::string const& peer, std::string_view reason) noexcept
{
  try
  {
    AuditRecord record;
    record.peer = peer;
    record.operation = "connect";
    record.result = reason;
    record.refused = true;
    write(record);
  }
  catch (std::exception const&)
  {
    noteLost(); // for want of memory
  }
}

std::uint64_t AuditLog::lost() noexcept { return lostRecords.load(std::memory_order_relaxed); }

void AuditLog::noteLost() noexcept { ++lostRecords; }

void AuditLog::setClock(Clock clock)
{
  State& all = state();
  std::lock_guard const guard(all.mutex);
  all.clock = std::move(clock);
}

} // namespace Quillon::Tessarine::Ozf
