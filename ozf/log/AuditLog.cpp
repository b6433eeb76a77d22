#include "ozf/log/AuditLog.h"

#include "ozf/base/Display.h"
#include "ozf/log/AuditWriter.h"
#include "ozf/log/FrameworkLogger.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
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
std::atomic<std::uint64_t> connectionsRefused{0};

// Of one peer.
struct Refusals
{
  Time since;
  std::uint64_t written = 0;
  std::uint64_t leftOut = 0;
};

struct State
{
  Time now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

  std::mutex mutex; // held for no file
  std::shared_ptr<AuditWriter> writer;
  AuditLog::Clock clock; // empty: the steady one
  std::map<std::string, Refusals> refusals;
  std::uint64_t refusalsWritten = 0; // of all of them
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

// ---- what is written; the caller holds the lock ----

using Lines = std::vector<std::string>;

void tellLeftOut(State& all, bool whole, Lines& lines)
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
    if (refusals.leftOut > 0)
    {
      auto const seconds = std::chrono::ceil<std::chrono::seconds>(now - refusals.since).count();
      lines.push_back(
          lineOf(ownRecord(peer, std::to_string(refusals.leftOut) + " more refusals in " +
                                     std::to_string(seconds) + " seconds")));
    }
    all.refusalsWritten -= refusals.written;
    entry = all.refusals.erase(entry);
  }
}

// Refusals beyond what may be written of a peer count as its own; those that all peers
// together may not have, and of peers beyond MOST_PEERS, as those of others.
bool isLeftOut(State& all, AuditRecord const& record)
{
  if (!record.refused)
    return false;
  auto known = all.refusals.find(record.peer);
  bool const isFull =
      all.refusalsWritten >= AuditLog::ALL_REFUSALS_A_MINUTE || all.refusals.size() >= MOST_PEERS;
  if (known == all.refusals.end())
    known = all.refusals.try_emplace(isFull ? std::string("others") : record.peer).first;
  Refusals& refusals = known->second;
  if (refusals.written + refusals.leftOut == 0)
    refusals.since = all.now();
  bool const leftOut = refusals.written >= AuditLog::REFUSALS_A_MINUTE ||
                       all.refusalsWritten >= AuditLog::ALL_REFUSALS_A_MINUTE;
  ++(leftOut ? refusals.leftOut : refusals.written);
  all.refusalsWritten += leftOut ? 0 : 1;
  return leftOut;
}

// Collects lines under the lock and has them written without it.
template <class Collect>
void put(bool waits, Collect const& collect) noexcept
{
  try
  {
    Lines lines;
    std::shared_ptr<AuditWriter> writer;
    {
      State& all = state();
      std::lock_guard const guard(all.mutex);
      writer = all.writer;
      if (writer)
        collect(all, lines);
    }
    for (std::string& line : lines)
      writer->append(std::move(line), waits);
  }
  catch (std::exception const&)
  {
    AuditLog::noteLost(); // for want of memory
  }
}

std::shared_ptr<AuditWriter> makeWriter(std::string const& path)
{
  AuditWriter::Hooks hooks;
  hooks.missingLine = [](std::uint64_t count)
  { return lineOf(ownRecord("", std::to_string(count) + " records are missing here")); };
  hooks.complain = [](std::string const& text)
  { OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION, text); };
  hooks.lost = [](std::uint64_t count) { lostRecords += count; };
  hooks.now = []
  {
    State& all = state();
    std::lock_guard const guard(all.mutex);
    return all.now();
  };
  return std::make_shared<AuditWriter>(path, std::move(hooks));
}

} // namespace

void AuditLog::setFile(std::string const& path)
{
  // With the old file, what is to be told of it.
  put(true, [](State& all, Lines& lines) { tellLeftOut(all, true, lines); });
  auto const writer = path.empty() ? nullptr : makeWriter(path);
  std::shared_ptr<AuditWriter> former = writer;
  {
    State& all = state();
    std::lock_guard const guard(all.mutex);
    all.writer.swap(former);
    on = writer != nullptr;
  }
  if (former)
    former->end();
  if (int const error = writer ? writer->open() : 0; error != 0)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "AuditLog::setFile",
            "Unable to open the audit file " << path << ": " << errorText(error));
}

bool AuditLog::isOn() noexcept { return on.load(std::memory_order_relaxed); }

void AuditLog::write(AuditRecord const& record) noexcept
{
  if (!isOn())
    return;
  put(true,
      [&record](State& all, Lines& lines)
      {
        tellLeftOut(all, false, lines);
        if (!isLeftOut(all, record))
          lines.push_back(lineOf(record));
      });
}

void AuditLog::reportLeftOut() noexcept
{
  put(false, [](State& all, Lines& lines) { tellLeftOut(all, false, lines); });
}

void AuditLog::refuseConnection(std::string const& peer, std::string_view reason) noexcept
{
  connectionsRefused.fetch_add(1, std::memory_order_relaxed);
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

std::uint64_t AuditLog::refusedConnections() noexcept
{
  return connectionsRefused.load(std::memory_order_relaxed);
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
