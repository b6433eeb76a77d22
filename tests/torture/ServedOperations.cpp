#include "tests/torture/ServedOperations.h"

#include "tests/support/SealedPayload.h"
#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/Versions.h"
#include "tools/DatabaseScan.h"

#include <filesystem>
#include <stdexcept>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;
using namespace tqtest::client;
using tqtest::LiveService;

constexpr char SERVED[] = "served";
constexpr char BESIDE[] = "beside";
constexpr char GONE[] = "gone";
constexpr char FIRST[] = "first";
constexpr char PUT[] = "served put";
constexpr char FIRST_PUT[] = "served first put";
constexpr char REFRESH_AUTHORITY[] = "filesystem"; // whose subjects are refreshed
constexpr std::size_t PAYLOAD = 3000;

template <class Call>
std::string answerOf(Call const& call)
{
  try
  {
    return call();
  }
  catch (CORBA::Exception const& exception)
  {
    return std::string("exception ") + exception._name();
  }
}

std::string textOf(DiscoveryStatus status)
{
  return status == DS_SUCCESS ? "stored" : "refused " + std::to_string(status);
}

} // namespace

std::vector<ServedOperations::Operation> const& ServedOperations::all()
{
  // What has expired goes when it is met, by a list.
  static std::vector<Operation> const operations{
      {PUT, &ServedOperations::put, "stored"},
      {FIRST_PUT, &ServedOperations::putFirst, "stored"},
      {"served read", &ServedOperations::read, "read"},
      {"served list", &ServedOperations::list, "listed"},
      {"served expiry", &ServedOperations::list, "listed"},
      {"registration", &ServedOperations::registerPull, "registered"},
      {"refresh", &ServedOperations::refresh, "refreshed", false},
      {"connection", &ServedOperations::connectAnew, "connected"}};
  return operations;
}

char const* ServedOperations::subject() { return SERVED; }

ServedOperations::ServedOperations(Process::Environment environment)
    : m_environment(std::move(environment))
{
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // inherited by the service
  ozf::OzfObjTime::setClock(nullptr);
  begin();
}

ServedOperations::~ServedOperations() { end(); }

void ServedOperations::begin()
{
  if (!m_service.start(m_environment))
    throw std::runtime_error("the service does not start: " + m_service.log());
  m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
  if (!m_client->connected())
    throw std::runtime_error("the service does not answer: " + m_service.log());
  Remote::Discovery filter = makeRecord(LiveService::NAME, REFRESH_AUTHORITY);
  filter.queryType = DQ_FILTER_DATA;
  filter.authType = AT_EXTSRC;
  if (m_client->store(BESIDE, AUTHORITY, tqtest::sealedPayload(BESIDE, 7, PAYLOAD)) != DS_SUCCESS ||
      m_client->store(filter, "<DiscoveredItems/>") != DS_SUCCESS)
    throw std::runtime_error("the service does not store");
}

void ServedOperations::end()
{
  m_client.reset();
  m_lastEnd = m_service.process().running() ? m_service.stop() : 0;
  if (m_lastEnd != -1)
    return;
  m_service.process().sendSignal(SIGKILL);
  m_service.process().wait();
}

void ServedOperations::restart()
{
  end();
  begin();
}

void ServedOperations::prepare()
{
  if (!m_client->connected() && !m_client->connect())
    restart();
  if (storeNumber(SERVED, ++m_number, 3600) != DS_SUCCESS ||
      storeNumber(GONE, m_number, 0) != DS_SUCCESS)
    throw std::runtime_error("the service refuses what comes before: " + m_service.log());
}

std::string ServedOperations::perform(Operation const& operation)
{
  return answerOf([&] { return (this->*operation.act)(); });
}

// ---- the operations ----

DiscoveryStatus ServedOperations::storeNumber(std::string const& subject, std::uint64_t number,
                                              std::uint64_t lifetime)
{
  Remote::Discovery record = makeRecord(subject, AUTHORITY);
  record.attributes.discoveryTime = static_cast<CORBA::ULongLong>(number);
  record.attributes.timeToLive = static_cast<CORBA::ULongLong>(lifetime);
  return m_client->store(record, tqtest::sealedPayload(subject, number, PAYLOAD));
}

std::string ServedOperations::put() { return textOf(storeNumber(SERVED, m_number + 1, 3600)); }

// Of a name that nobody has put yet.
std::string ServedOperations::putFirst()
{
  return textOf(storeNumber(firstName(), m_number, 3600));
}

std::string ServedOperations::firstName() const { return FIRST + std::to_string(m_number); }

std::string ServedOperations::read()
{
  std::string const payload = m_client->read(SERVED, AUTHORITY);
  if (payload.rfind("(status ", 0) == 0)
    return payload;
  std::uint64_t number = 0;
  std::string const flaw = tqtest::flawOf(payload, SERVED, number);
  return flaw.empty() && number == m_number ? "read" : "untrue: read what is " + flaw;
}

std::string ServedOperations::list()
{
  std::multiset<std::string> const found = m_client->subjects(AUTHORITY);
  if (found.count(SERVED) == 1 && found.count(BESIDE) == 1)
    return "listed";
  return "untrue: " + std::to_string(found.size()) + " listed";
}

std::string ServedOperations::registerPull()
{
  (*m_client)->registerExplorer(LiveService::NAME, "DiscoveryService", "pulled", "puller",
                                AT_REMOTEPULL, 3);
  return "registered";
}

std::string ServedOperations::connectAnew()
{
  m_client.reset();
  m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
  return m_client->connected() ? "connected" : "refused";
}

// The service calls itself for it. One begins when the one before has ended.
std::string ServedOperations::refresh()
{
  auto const begins = [&]
  { return tqtest::eventually([&] { return (*m_client)->restartAllPushTimers(); }); };
  if (!begins())
    return "refused";
  return begins() ? "refreshed" : "untrue: no end";
}

// ---- the judgement ----

std::string ServedOperations::readAgain()
{
  m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
  std::string const found =
      m_client->connected() ? answerOf([&] { return read(); }) : "no connection";
  m_client.reset();
  return found;
}

void ServedOperations::judge(std::string const& name, std::string const& answer,
                             std::string const& done, Blow const& blow,
                             std::vector<std::string>& flaws)
{
  if (!m_client->connected() && !m_client->connect())
  {
    flaws.push_back("the service cannot be reached any more");
    restart();
  }
  bool empty = false;
  std::string const state = stateOfWritten(m_service.database(), SERVED, empty);
  std::string const old = "whole " + std::to_string(m_number);
  std::string const next = "whole " + std::to_string(m_number + 1);
  bool const unknown = answer.starts_with("exception ") || blow.leavesDoubt;
  bool const right = name != PUT      ? state == old
                     : answer == done ? state == next
                     : unknown        ? state == old || state == next
                                      : state == old;
  if (!right)
    flaws.push_back("answered \"" + answer + "\", and there is: " + state);
  if (name == FIRST_PUT)
    judgeFirst(answer, done, blow, flaws);
  if (state == next)
    ++m_number;
  if (std::string const found = answerOf([&] { return list(); }); found != "listed")
    flaws.push_back("afterwards: " + found);
  if (std::string const found = answerOf([&] { return read(); }); right && found != "read")
    flaws.push_back("afterwards: " + found);
  tqdiscoctl::DatabaseContents contents;
  tqdiscoctl::scanDatabase(m_service.database(), contents);
  for (auto const& [file, reason] : contents.problems)
    flaws.push_back(file + " " + reason);
  if (!contents.temporaryFiles.empty())
  {
    if (!blow.leavesFiles)
      flaws.push_back("a temporary file stays");
    restart();
  }
  if (!flaws.empty() && !contents.problems.empty())
    mend();
}

// It is there or not; of one that was killed, or in doubt, either.
void ServedOperations::judgeFirst(std::string const& answer, std::string const& done,
                                  Blow const& blow, std::vector<std::string>& flaws)
{
  bool empty = false;
  std::string const state = stateOfWritten(m_service.database(), firstName(), empty);
  bool const whole = state == "whole " + std::to_string(m_number);
  bool const absent = state == "nothing" || (blow.kills && empty);
  bool const unknown = answer.starts_with("exception ") || blow.leavesDoubt;
  if (!(answer == done ? whole : absent || (unknown && whole)))
    flaws.push_back("answered \"" + answer + "\", and there is of the first: " + state);
  removeFirst();
}

void ServedOperations::removeFirst() const
{
  for (auto const& entry : fs::directory_iterator(m_service.database()))
    if (entry.path().filename().string().find(FIRST) != std::string::npos)
      fs::remove(entry.path());
}

// So that one failure is not told of again by those that follow.
void ServedOperations::mend()
{
  end();
  fs::remove_all(m_service.database());
  begin();
}

} // namespace tqtorture
