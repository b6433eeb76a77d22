// One operation on the database of TESSARINE_ROOT, between two calls that a
// tracer can tell, and its answer on standard output:
//
//   put NUMBER  stores that version: "stored" or "refused STATUS"
//   read        "read NUMBER", "nothing" or "failed"
//   list        "listed COUNT complete" or "listed COUNT incomplete"
//   start       "started"
//
// Usage: fault_operation put NUMBER | read | list | start

#include "ozf/log/Logger.h"
#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/Scenarios.h"
#include "tests/torture/Versions.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <unistd.h>

namespace
{

using namespace tqtorture;

void mark(char const* where)
{
  // Nothing but a line in the trace.
  if (access(where, F_OK) == 0)
    std::exit(3);
}

std::string putVersion(char const* number)
{
  svc::DiscoveryStatus const status =
      storeVersion(SUBJECT, {.number = std::strtoull(number, nullptr, 10), .signatureSize = 200});
  return status == svc::DS_SUCCESS ? "stored" : "refused " + std::to_string(status);
}

template <class Database>
svc::Discovery* getStored(Database& database, int& error)
{
  if constexpr (requires { database.getDiscovery("", true, error); })
    return database.getDiscovery(fileOf(SUBJECT, "xml").c_str(), true, error);
  else
    return database.getDiscovery(fileOf(SUBJECT, "xml").c_str(), true);
}

template <class Iterator>
bool isShort(Iterator const& iterator)
{
  if constexpr (requires { iterator.isIncomplete(); })
    return iterator.isIncomplete();
  else
    return false;
}

std::string readVersion()
{
  int error = 0;
  ozf::AutoDereference<svc::Discovery> const record(
      getStored(*svc::getDiscoveryDBDatabase(), error));
  if (!record)
    return error == 0 ? "nothing" : "failed";
  if (record->open(svc::OM_READ, "") != svc::DS_SUCCESS)
    return "failed";
  std::string payload;
  std::array<char, 300> buffer;
  long n = 0;
  while ((n = record->getCollectionData()->readCollection(buffer.size(), buffer.data())) > 0)
    payload.append(buffer.data(), static_cast<std::size_t>(n));
  if (n < 0)
    return "failed";
  std::uint64_t number = 0;
  std::string const flaw = tqtest::flawOf(payload, SUBJECT, number);
  return flaw.empty() ? "read " + std::to_string(number) : "read what is " + flaw;
}

std::string list()
{
  ozf::AutoDereference<svc::DiscoveryIterator> const iterator(
      svc::getDiscoveryDBDatabase()->getIterator(svc::DQ_DISCOVERY_DATA));
  long count = 0;
  while (ozf::AutoDereference<svc::Discovery> const record{iterator->getNext()})
    ++count;
  return "listed " + std::to_string(count) + (isShort(*iterator) ? " incomplete" : " complete");
}

std::string perform(std::string const& operation, char const* argument)
{
  if (operation == "start")
    svc::getDiscoveryDBDatabase()->init("");
  else if (operation == "put")
    return putVersion(argument);
  else if (operation == "read")
    return readVersion();
  else if (operation == "list")
    return list();
  return "started";
}

} // namespace

int main(int argc, char** argv)
{
  if (argc < 2)
    return 2;
  std::string const operation = argv[1];
  useFixedClock();
  warmUp();
  if (operation != "start")
    svc::getDiscoveryDBDatabase()->init("");
  std::string answer;
  mark("/torture/begin");
  try
  {
    answer = perform(operation, argc > 2 ? argv[2] : "");
  }
  catch (std::bad_alloc const&)
  {
    answer = "no memory";
  }
  mark("/torture/end");
  std::puts(answer.c_str());
  return 0;
}
