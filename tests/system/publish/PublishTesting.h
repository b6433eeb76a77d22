// tqpublish beside a live service and a PostgreSQL.

#pragma once

#include "tests/support/LiveService.h"
#include "tests/support/PostgresServer.h"
#include "tests/support/PlacedRecords.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <string>

namespace tqtest
{

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// A payload with an item of that name for each, with one fact.
inline std::string itemsWith(std::vector<std::pair<std::string, std::string>> const& items)
{
  std::string text = "<DiscoveredItems>";
  for (auto const& [name, value] : items)
    text += "<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"probe\"><Value>" + value +
            "</Value></ExplorerData></DISCOVERED>";
  return text + "</DiscoveredItems>";
}

// Puts the names behind the database's, as the library makes them, into the database of that
// service, whoever serves it. A reader that was killed keeps its lock for a while.
inline void storeIn(LiveService const& service, std::string const& subject,
                    std::string const& authority, std::string const& payload)
{
  std::filesystem::create_directories(service.database());
  EXPECT_TRUE(eventually(
      [&]
      {
        return records::store(service.database(), authority, subject, 1, payload) ==
               records::DS_SUCCESS;
      },
      std::chrono::minutes(2)));
}

// The same for many.
inline void placeIn(LiveService const& service, std::string const& subject,
                    std::string const& authority, std::string const& payload)
{
  std::filesystem::create_directories(service.database());
  records::place(service.database(), authority, subject, payload);
}

// Of one whose clock is so far off.
inline void storeAt(LiveService const& service, std::chrono::seconds off,
                    std::string const& subject)
{
  std::filesystem::create_directories(service.database());
  auto const discovery = records::make(service.database(), "probe", subject, 1);
  records::OzfObjTime const now(records::OzfObjTime::now().seconds() + off.count());
  discovery->setAttributes(new records::CollectionAttributes(records::CT_REAL_TIME,
                                                             records::CS_CENTRALREPOSITORY, now,
                                                             records::OzfObjTime(10 * 86400), 1));
  EXPECT_EQ(records::DS_SUCCESS, records::store(*discovery, itemsWith({{"a", "1"}})));
}

// Takes what storeIn put there away.
inline void removeFrom(LiveService const& service, std::string const& subject,
                       std::string const& authority)
{
  for (char const* const ending : {".xml", ".dat"})
    std::filesystem::remove(service.database() + "/2 " + authority + ' ' + subject + ending);
}

class Publishing
{
public:
  explicit Publishing(LiveService& service, std::string const& entries = "") : m_service(service)
  {
    m_service.configure(entries + "PUBLISH_INTERVAL = 1s\n");
  }

  // A server with the schema of the program.
  bool create(std::string const& entries = "")
  {
    return m_postgres.create(entries) && m_postgres.start() && migrate();
  }

  bool migrate() { return run({"migrate"}).exitCode == 0; }

  Outcome run(LiveService::Words const& arguments) const
  {
    return runProgram(TQ_BIN_DIR "/tqpublish", arguments, environment());
  }

  // One pass.
  Outcome once() const { return run({"--once"}); }

  // Goes on until it is stopped.
  bool start()
  {
    m_process = std::make_unique<Process>(TQ_BIN_DIR "/tqpublish",
                                          LiveService::Words{"--log-level", "4"}, environment());
    return m_process->awaitError("main: Started, version");
  }
  int stop()
  {
    m_process->sendSignal(SIGTERM);
    return m_process->wait() ? m_process->exitCode() : -1;
  }

  Process::Environment environment() const
  {
    Process::Environment all = more;
    all.merge(m_postgres.environment(user));
    all["TESSARINE_ROOT"] = m_service.root();
    return all;
  }

  bool awaitSql(std::string const& question, std::string const& answer) const
  {
    return eventually([&] { return sql(question) == answer; });
  }

  std::string sql(std::string const& statements) const { return m_postgres.sql(statements); }

  // How many discoveries and changes lack their payload, payloads are nobody's, and items are of
  // what is gone.
  std::string unsound() const
  {
    return sql("select (select count(*) from discovery d where gone is null and digest is not null "
               "and not exists (select from payload p where p.digest = d.digest)) + "
               "(select count(*) from history h where before is not null "
               "and not exists (select from payload p where p.digest = h.before)), "
               "(select count(*) from payload p where not exists (select from discovery d "
               "where d.digest = p.digest) and not exists (select from history h "
               "where h.before = p.digest)), "
               "(select count(*) from item i join discovery d on d.id = i.discovery_id "
               "where gone is not null)");
  }
  static constexpr char SOUND[] = "0|0|0";

  PostgresServer& postgres() { return m_postgres; }
  Process& process() { return *m_process; }
  std::string log() const { return m_process->errors(); }

  std::string user = PostgresServer::OWNER;
  Process::Environment more; // goes before what leads to the server

private:
  LiveService& m_service;
  PostgresServer m_postgres;
  std::unique_ptr<Process> m_process;
};

} // namespace tqtest
