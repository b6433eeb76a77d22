#include "publish/KnownRecords.h"

#include "ozf/base/Digest.h"
#include "publish/SqlText.h"

#include <algorithm>

namespace Publish
{

namespace
{

bool standsBefore(KnownRecord const& a, KnownRecord const& b) { return a.key < b.key; }

} // namespace

Half keyOf(std::string const& subject, std::string const& authority, int type, bool onDemand)
{
  // No name holds a NUL.
  std::string const names =
      subject + '\0' + authority + '\0' + std::to_string(type) + (onDemand ? "*" : "");
  auto const digest = Quillon::Tessarine::Ozf::sha256Of(names);
  Half half{};
  std::copy_n(digest.begin(), half.size(), half.begin());
  return half;
}

std::string uuidText(Half const& half) { return sqlBytes(half).substr(2); }

void KnownRecords::sort()
{
  std::sort(m_records.begin(), m_records.end(), standsBefore);
  m_records.shrink_to_fit();
}

KnownRecord* KnownRecords::find(Half const& key)
{
  auto const found =
      std::lower_bound(m_records.begin(), m_records.end(), key,
                       [](KnownRecord const& a, Half const& b) { return a.key < b; });
  return found != m_records.end() && found->key == key ? &*found : nullptr;
}

void KnownRecords::beginPass()
{
  for (KnownRecord& record : m_records)
    record.seen = false;
}

std::vector<Half> KnownRecords::unseen() const
{
  std::vector<Half> keys;
  for (KnownRecord const& record : m_records)
    if (!record.seen)
      keys.push_back(record.key);
  return keys;
}

void KnownRecords::apply(std::vector<KnownRecord> const& changed)
{
  std::vector<KnownRecord> added;
  for (KnownRecord const& record : changed)
    if (KnownRecord* const known = find(record.key))
      *known = record;
    else
      added.push_back(record);
  std::sort(added.begin(), added.end(), standsBefore);
  auto const end = std::unique(added.begin(), added.end(),
                               [](auto const& a, auto const& b) { return a.key == b.key; });
  auto const middle = static_cast<std::ptrdiff_t>(m_records.size());
  m_records.insert(m_records.end(), added.begin(), end);
  std::inplace_merge(m_records.begin(), m_records.begin() + middle, m_records.end(), standsBefore);
}

void KnownRecords::remove(std::vector<Half> keys)
{
  std::sort(keys.begin(), keys.end());
  std::erase_if(m_records, [&keys](KnownRecord const& record)
                { return std::binary_search(keys.begin(), keys.end(), record.key); });
}

} // namespace Publish
