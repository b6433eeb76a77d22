// Writes some records of one master.

#pragma once

#include "ozf/base/Digest.h"
#include "publish/Database.h"
#include "publish/KnownRecords.h"
#include "tools/Collections.h"
#include "tools/ItemJson.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Publish
{

// Within a transaction that the caller begins and ends; a failure leaves that of no use. Calls
// throw what libpqxx throws. Records are staged in tables of the session, so that one statement
// compares and writes all of them; what is staged and not sent yet is bounded.
class BatchWriter
{
public:
  using Digest = Quillon::Tessarine::Ozf::Sha256;

  // isFirst: nothing is known yet of when the records were reported, but what they say.
  BatchWriter(pqxx::transaction_base& transaction, int master, bool isFirst);

  struct Report
  {
    KnownRecord known;
    std::optional<Digest> digest; // of the payload; none: there is none, or it was not read
    bool keepHistory = true;
    bool kept = false;   // what the database has of the payload holds: no items were staged
    std::string problem; // empty: none
  };

  // The record, of which item is called first for each of its items, and payload where it has one.
  void record(tqdiscoctl::Record const& record, Report const& report);
  void item(Half const& record, tqdiscoctl::Item const& item,
            Quillon::Tessarine::Ozf::OzfQuery const& description);
  void payload(Digest const& digest, std::string const& content);

  // Behind the last record.
  void finish();

private:
  struct StagedItem
  {
    std::string record, key, name, facts, status, policy, content;
  };
  struct StagedPayload
  {
    std::string digest, content;
  };
  struct StagedRecord
  {
    std::string key, subject, authority;
    int type;
    bool onDemand;
    std::int64_t discovered, expires;
    std::string digest;
    bool unread;
    std::string problem;
    bool keepHistory, kept;
  };

  void stage(std::size_t bytes);
  void sendItems();
  void sendPayloads();
  void sendRecords();
  std::int64_t itemKey(std::string const& name);

  pqxx::transaction_base& m_transaction;
  int const m_master;
  bool const m_isFirst;
  std::vector<StagedRecord> m_records;
  std::vector<StagedItem> m_items;
  std::vector<StagedPayload> m_payloads;
  std::unordered_set<std::string> m_digests;           // of payloads that were staged
  std::size_t m_bytes = 0;                             // of m_items and m_payloads
  Half m_current{};                                    // record whose items come
  std::unordered_set<std::int64_t> m_keys;             // of its items
  std::unordered_map<std::string, unsigned> m_numbers; // of names that it has several times
};

} // namespace Publish
