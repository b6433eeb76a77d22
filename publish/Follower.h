// Keeps the rows of one master current.

#pragma once

#include "publish/BatchWriter.h"
#include "publish/Database.h"
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

// One thread. What is of the database throws what libpqxx throws; then nothing of that pass is
// kept, and load has to be called for the next connection.
class Follower
{
public:
  Follower(std::string master, Settings const& settings, Stop const& stop);

  // Takes over what the database has, for this connection.
  void load(Database& database);

  // One pass: lists the master, fetches what is new, and writes it. False when the master could
  // not be listed, or was lost meanwhile; what it had said before is kept. Blocks as long as the
  // master takes, at most some minutes where it does not answer.
  bool pass();

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
  };

  bool list(Round& round, std::string& why);
  void write(pqxx::work& work, Round& round);
  void writeBatch(pqxx::work& work, std::span<Record const> batch, Round& round);
  bool writeOne(BatchWriter& writer, Record const& record);
  void writePayload(BatchWriter& writer, Record const& record, std::string const& bytes,
                    BatchWriter::Report& report);
  void noteRefused(pqxx::work& work, Record const& record, std::string const& why);
  void markGone(pqxx::work& work, std::vector<Half> const& keys);
  void markAway(std::string const& why);
  void tellHeard(std::size_t listed);
  void watchClock(Round const& round);
  bool answers(Record const& record) const;
  bool keepsHistory(Record const& record) const;

  std::string const m_master;
  Settings const& m_settings;
  Stop const& m_stop;
  Database* m_database = nullptr;
  int m_id = 0;
  KnownRecords m_known;
  std::vector<KnownRecord> m_written; // in this round
  tqdiscoctl::Descriptions m_descriptions;
  unsigned m_passes = 0;
  bool m_isFirst = false; // the database has nothing of the master yet
  bool m_isAway = false;
  bool m_wasHeard = false;
  std::int64_t m_newest = 0; // discovery time listed last, and whose it is
  std::string m_newestSubject;
  std::int64_t m_listed = 0; // when the list before was asked for
  std::int64_t m_ahead = 0;  // seconds that the master's clock is off; 0: hardly
};

} // namespace Publish
