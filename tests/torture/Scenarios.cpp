#include "tests/torture/Scenarios.h"

#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/Versions.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace tqtorture
{
namespace
{

void startDatabase() { svc::getDiscoveryDBDatabase()->init(""); }

void mustStore(std::string const& subject, Version const& version)
{
  if (storeVersion(subject, version) != svc::DS_SUCCESS)
    throw std::runtime_error("cannot store version " + std::to_string(version.number));
}

std::function<void()> stored(Version const& version)
{
  return [version]
  {
    startDatabase();
    mustStore(BYSTANDER, {.number = 7});
    mustStore(SUBJECT, version);
  };
}

std::function<void(FileRecorder&)> storing(std::vector<Version> const& versions)
{
  return [versions](FileRecorder& recorder)
  {
    startDatabase();
    std::size_t operation = 0;
    for (Version const& version : versions)
    {
      mustStore(SUBJECT, version);
      recorder.acknowledge(++operation);
    }
  };
}

Scenario replacing(std::string const& name, Version const& old, Version const& next)
{
  return {name,
          stored(old),
          storing({next}),
          {{"whole " + std::to_string(old.number)}, {"whole " + std::to_string(next.number)}}};
}

void refuse(FileRecorder& recorder)
{
  startDatabase();
  svc::DiscoveryStatus status = svc::DS_SUCCESS;
  if (openVersion(SUBJECT, {.number = 2, .priority = 1}, status) || status != svc::DS_DATA_EXISTS)
    throw std::runtime_error("a lesser priority is let in");
  recorder.acknowledge(1);
}

// Another writer of higher priority is done between the first look and the
// second.
void refuseLate(FileRecorder& recorder)
{
  startDatabase();
  svc::DiscoveryStatus status = svc::DS_SUCCESS;
  Version const lesser{.number = 2, .priority = 1};
  auto const discovery = openVersion(SUBJECT, lesser, status);
  if (!discovery || !writePayload(*discovery, SUBJECT, lesser))
    throw std::runtime_error("cannot write");
  mustStore(SUBJECT, {.number = 3, .priority = 5});
  recorder.acknowledge(1);
  if (discovery->persist() != svc::DS_DATA_EXISTS)
    throw std::runtime_error("a lesser priority is let in");
  recorder.acknowledge(2);
}

void abandon(FileRecorder& recorder)
{
  startDatabase();
  svc::DiscoveryStatus status = svc::DS_SUCCESS;
  Version const version{.number = 2};
  {
    auto const discovery = openVersion(SUBJECT, version, status);
    if (!discovery || !writePayload(*discovery, SUBJECT, version))
      throw std::runtime_error("cannot write");
  }
  recorder.acknowledge(1);
}

std::function<void()> storedExpired()
{
  return []
  {
    startDatabase();
    mustStore(BYSTANDER, {.number = 7});
    useFixedClock(86400);
    mustStore(SUBJECT, {.number = 1, .validSeconds = 60});
  };
}

void expire()
{
  startDatabase();
  if (ozf::AutoDereference<svc::Discovery> const record{
          svc::getDiscoveryDBDatabase()->getDiscovery(fileOf(SUBJECT, "xml").c_str())})
    throw std::runtime_error("what has expired is returned");
}

} // namespace

std::vector<Scenario> scenarios()
{
  constexpr std::size_t LONG = 400;
  constexpr std::size_t PAGES = 9000;
  std::vector<Scenario> all;
  all.push_back({"first put of a new database",
                 nullptr,
                 storing({{.number = 1}}),
                 {{"nothing"}, {"whole 1"}}});
  all.push_back({"put",
                 []
                 {
                   startDatabase();
                   mustStore(BYSTANDER, {.number = 7});
                 },
                 storing({{.number = 1}}),
                 {{"nothing"}, {"whole 1"}}});
  all.push_back(replacing("replace, metadata of one size", {.number = 1}, {.number = 2}));
  all.push_back(
      replacing("replace, longer metadata", {.number = 1}, {.number = 2, .signatureSize = LONG}));
  all.push_back(replacing("replace, shorter metadata", {.number = 1, .signatureSize = LONG},
                          {.number = 2, .payloadSize = 100}));
  all.push_back(replacing("replace, much longer metadata", {.number = 1},
                          {.number = 2, .signatureSize = PAGES, .payloadSize = PAGES}));
  all.push_back(replacing("replace, much shorter metadata",
                          {.number = 1, .signatureSize = PAGES, .payloadSize = PAGES},
                          {.number = 2}));
  all.push_back({"three in a row",
                 stored({.number = 1}),
                 storing({{.number = 2, .signatureSize = LONG},
                          {.number = 3},
                          {.number = 4, .signatureSize = LONG, .payloadSize = 2000}}),
                 {{"whole 1"}, {"whole 2"}, {"whole 3"}, {"whole 4"}}});
  all.push_back({"refused put",
                 stored({.number = 1, .priority = 5}),
                 refuse,
                 {{"whole 1"}, {"whole 1"}},
                 false});
  all.push_back({"put refused at its end",
                 stored({.number = 1}),
                 refuseLate,
                 {{"whole 1"}, {"whole 3"}, {"whole 3"}}});
  all.push_back(
      {"abandoned put", stored({.number = 1}), abandon, {{"whole 1"}, {"whole 1"}}, false});
  // What has expired and is there again expires again.
  Kinds const expired{"whole 1", "nothing"};
  all.push_back({"expire",
                 storedExpired(),
                 [](FileRecorder& recorder)
                 {
                   expire();
                   recorder.acknowledge(1);
                 },
                 {expired, expired},
                 true,
                 true,
                 false});
  all.push_back({"expire and put",
                 storedExpired(),
                 [](FileRecorder& recorder)
                 {
                   expire();
                   mustStore(SUBJECT, {.number = 2});
                   recorder.acknowledge(1);
                 },
                 {expired, {"whole 2"}},
                 true,
                 true});
  return all;
}

Scenario restartAfterKill(Kinds const& allowed)
{
  return {"start after a kill",
          nullptr,
          [](FileRecorder& recorder)
          {
            startDatabase();
            recorder.acknowledge(1);
          },
          {allowed, allowed},
          true,
          false,
          false};
}

} // namespace tqtorture
