// What the database has of one master, in as little memory as tells whether a list says anything
// new: some 60 bytes a record.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Publish
{

// The first half of a SHA-256: of the names of a record, or of a payload.
using Half = std::array<unsigned char, 16>;

struct KnownRecord
{
  Half key{};
  Half digest{}; // zeros where there is no payload
  std::int64_t discovered = 0;
  std::int64_t expires = 0; // both in seconds, 0 for none
  bool unread = false;      // its payload could not be had
  bool seen = false;        // in this pass
};

// The key of a record with these names: a stored one and one on demand may share them.
Half keyOf(std::string const& subject, std::string const& authority, int type, bool onDemand);

// As PostgreSQL writes a value of uuid, without hyphens.
std::string uuidText(Half const& half);

// One thread at a time.
class KnownRecords
{
public:
  // In any order; sort is called behind the last.
  void add(KnownRecord const& record) { m_records.push_back(record); }
  void sort();

  // Null when it is not there. Good until the next change.
  KnownRecord* find(Half const& key);

  void beginPass();
  std::vector<Half> unseen() const;

  // Replaces those of the same keys, and adds the others, which count as seen.
  void apply(std::vector<KnownRecord> const& changed);
  void remove(std::vector<Half> keys);

  std::size_t size() const noexcept { return m_records.size(); }

private:
  std::vector<KnownRecord> m_records; // by key
};

} // namespace Publish
