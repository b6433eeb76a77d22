#include "publish/BatchWriter.h"

#include "publish/SqlText.h"
#include "tools/Output.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;
using namespace tqdiscoctl;

namespace
{

constexpr std::size_t MOST_STAGED = std::size_t(1) << 20; // bytes
// A larger one goes by itself: in text, as it is staged, it takes twice its size, and several
// times.
constexpr std::size_t LARGE = std::size_t(64) << 10; // bytes
// libpq copies what is sent, and keeps the memory.
constexpr std::size_t PIECE = std::size_t(2) << 20; // bytes

char const* orNull(std::string const& text) { return text.empty() ? nullptr : text.c_str(); }
char const* orNo(bool value) { return value ? "t" : "f"; }

std::string jsonOf(nlohmann::json const& value) { return jsonText(value, -1); }

} // namespace

BatchWriter::BatchWriter(pqxx::transaction_base& transaction, int master, bool isFirst)
    : m_transaction(transaction), m_master(master), m_isFirst(isFirst)
{
  m_transaction.exec("truncate staged, staged_item, staged_payload");
}

std::int64_t BatchWriter::itemKey(std::string const& name)
{
  for (unsigned number = m_numbers[name]++;; ++number)
  {
    auto const digest = sha256Of(name + '\0' + std::to_string(number));
    std::int64_t key = 0;
    std::memcpy(&key, digest.data(), sizeof key);
    if (m_keys.insert(key).second)
      return key;
  }
}

void BatchWriter::item(Half const& record, Item const& item, OzfQuery const& description)
{
  if (record != m_current)
  {
    m_current = record;
    m_keys.clear();
    m_numbers.clear();
  }
  StagedItem staged;
  staged.record = uuidText(record);
  staged.name = sqlText(item.name);
  staged.key = std::to_string(itemKey(staged.name));
  Item::Facts facts;
  for (auto const& [name, value] : item.facts)
    facts.emplace_back(sqlText(name), sqlText(value));
  staged.facts = jsonOf(factsObject(facts, description));
  if (item.status)
    staged.status = jsonOf({{"code", item.status->code},
                            {"severity", item.status->severity},
                            {"text", sqlText(item.status->text)}});
  staged.policy = sqlText(item.policy);
  staged.content = sqlText(item.text);
  std::size_t const bytes =
      sizeof staged + staged.name.size() + staged.facts.size() + staged.content.size();
  m_items.push_back(std::move(staged));
  stage(bytes);
}

void BatchWriter::stage(std::size_t bytes)
{
  m_bytes += bytes;
  if (m_bytes < MOST_STAGED)
    return;
  sendItems();
  sendPayloads();
}

void BatchWriter::sendItems()
{
  if (m_items.empty())
    return;
  std::vector<std::string> const columns = {"record", "key",    "name",   "facts",
                                            "status", "policy", "content"};
  pqxx::stream_to stream(m_transaction, "staged_item", columns);
  for (StagedItem const& each : m_items)
    stream << std::make_tuple(each.record, each.key, each.name, each.facts, orNull(each.status),
                              orNull(each.policy), orNull(each.content));
  stream.complete();
  m_items.clear();
  m_bytes = 0;
}

void BatchWriter::sendPayloads()
{
  if (m_payloads.empty())
    return;
  std::vector<std::string> const columns = {"digest", "content"};
  pqxx::stream_to stream(m_transaction, "staged_payload", columns);
  for (StagedPayload const& each : m_payloads)
    stream << std::make_tuple(each.digest, each.content);
  stream.complete();
  m_payloads.clear();
  m_bytes = 0;
}

void BatchWriter::payload(Digest const& digest, std::string const& content)
{
  if (content.size() < LARGE)
  {
    StagedPayload staged{sqlBytes(digest), {}};
    if (!m_digests.insert(staged.digest).second)
      return;
    staged.content =
        sqlBytes({reinterpret_cast<unsigned char const*>(content.data()), content.size()});
    std::size_t const bytes = sizeof staged + staged.content.size();
    m_payloads.push_back(std::move(staged));
    stage(bytes);
    return;
  }
  pqxx::binarystring const key(digest.data(), digest.size());
  auto const piece = [&content](std::size_t at)
  { return pqxx::binarystring(content.data() + at, std::min(PIECE, content.size() - at)); };
  if (m_transaction.exec_prepared("payload", key, piece(0)).empty())
    return;
  for (std::size_t at = PIECE; at < content.size(); at += PIECE)
    m_transaction.exec_prepared0("more_payload", key, piece(at));
}

void BatchWriter::record(Record const& record, Report const& report)
{
  StagedRecord staged;
  staged.key = uuidText(report.known.key);
  staged.subject = sqlText(record.subject);
  staged.authority = sqlText(record.authority);
  staged.type = static_cast<int>(record.type);
  staged.onDemand = record.onDemand();
  staged.discovered = report.known.discovered;
  staged.expires = report.known.expires;
  staged.digest = report.digest ? sqlBytes(*report.digest) : std::string();
  staged.unread = report.known.unread;
  staged.problem = sqlText(report.problem);
  staged.keepHistory = report.keepHistory;
  staged.kept = report.kept;
  m_records.push_back(std::move(staged));
}

void BatchWriter::sendRecords()
{
  std::vector<std::string> const columns = {"key",       "subject",    "authority",    "type",
                                            "on_demand", "discovered", "expires",      "digest",
                                            "unread",    "problem",    "keep_history", "kept"};
  pqxx::stream_to stream(m_transaction, "staged", columns);
  for (StagedRecord const& each : m_records)
    stream << std::make_tuple(each.key, each.subject, each.authority, each.type,
                              orNo(each.onDemand), each.discovered, each.expires,
                              orNull(each.digest), orNo(each.unread), orNull(each.problem),
                              orNo(each.keepHistory), orNo(each.kept));
  stream.complete();
}

void BatchWriter::finish()
{
  sendItems();
  sendPayloads();
  sendRecords();
  m_transaction.exec_prepared("add_payloads");
  m_transaction.exec("analyze staged_item (record, key)");
  m_transaction.exec_prepared("find_staged", m_master);
  m_transaction.exec_prepared("add_staged", m_master, m_isFirst);
  // Not before, as it would take the rows for ones that are nowhere, and items for quickly read.
  m_transaction.exec("analyze staged (key, id, before, digest, is_new)");
  m_transaction.exec_prepared("update_staged");
  m_transaction.exec_prepared("note_staged");
  m_transaction.exec_prepared("drop_items");
  m_transaction.exec_prepared("write_items");
  m_transaction.exec_prepared("drop_payloads");
}

} // namespace Publish
