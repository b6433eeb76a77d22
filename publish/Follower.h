// Keeps the rows of one master current.

#pragma once

#include "publish/BatchWriter.h"
#include "publish/Database.h"
#include "publish/Fetcher.h"
#include "publish/KnownRecords.h"
#include "publish/Settings.h"
#include "publish/Stop.h"
#include "tools/ItemJson.h"
#include "tools/Records.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace Publish
{

// A pass is list, and then write. One thread at a time. What is of the database throws what libpqxx
// throws; then nothing of that pass is kept, and load has to be called for the next connection.
class Follower
{
public:
  Follower(std::string master, Settings const& settings, Stop const& stop);

  // Takes over what the database has, for this connection.
  void load(Database& database);

  // Lists the master; uses no database. Blocks as long as that takes, at most some minutes where
  // the master does not answer, and not for long once the end is requested.
  void list(Stop const& end);

  // Fetches what the list says is new, and writes it, all in one transaction; where that is more
  // than is held at a time, the master is listed again for the rest. False when the master could
  // not be listed, or was lost meanwhile; what it had said before is kept.
  bool write();

  std::string const& master() const noexcept { return m_master; }

private:
  using Record = tqdiscoctl::Record;
  using Records = std::vector<Record>;

  // What a list says that is new, as far as one round takes it.
  struct Round
  {
    Records changed;
    std::size_t listed = 0;
    bool more = false;     // than a round takes
    bool complete = false; // the list lacks nothing
    bool lost = false;     // the master stopped answering
    std::string why;       // there is no list; empty: there is one
    std::int64_t asked = 0;
    std::int64_t newest = 0; // discovery time, and whose it is
    std::string newestSubject;
  };

  void ask(Stop const& end, bool isFirst);
  void take(Record record, bool retries, std::size_t& bytes);
  std::size_t writeRounds(pqxx::work& work);
  void writeRound(pqxx::work& work);
  void writeBatch(pqxx::work& work, std::span<Record const> batch);
  bool writeOne(BatchWriter& writer, Record const& record, Fetcher::Payload payload);
  void writePayload(BatchWriter& writer, Record const& record, std::string const& bytes,
                    BatchWriter::Report& report);
  void noteRefused(pqxx::work& work, Record const& record, std::string const& why);
  void markGone(pqxx::work& work, std::vector<Half> const& keys);
  void markAway(std::string const& why);
  void tellHeard();
  void watchClock();
  bool answers(Record const& record) const;
  bool keepsHistory(Record const& record) const;

  std::string const m_master;
  Settings const& m_settings;
  Stop const& m_stop;
  Database* m_database = nullptr;
  int m_id = 0;
  KnownRecords m_known;
  Round m_round;
  std::vector<KnownRecord> m_written; // in this round
  tqdiscoctl::Descriptions m_descriptions;
  unsigned m_passes = 0;
  bool m_isFirst = false; // the database has nothing of the master yet
  bool m_isAway = false;
  bool m_wasHeard = false;
  std::int64_t m_listed = 0; // when the list before was asked for
  std::int64_t m_ahead = 0;  // seconds that the master's clock is off; 0: hardly
};

} // namespace Publish
