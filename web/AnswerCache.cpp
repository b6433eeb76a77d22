#include "web/AnswerCache.h"

namespace Web
{

std::optional<Answer> AnswerCache::find(std::string const& key)
{
  std::lock_guard const guard(m_mutex);
  auto const found = m_places.find(key);
  if (found == m_places.end())
    return std::nullopt;
  m_entries.splice(m_entries.begin(), m_entries, found->second);
  return found->second->answer;
}

void AnswerCache::keep(std::string const& key, Answer const& answer)
{
  std::lock_guard const guard(m_mutex);
  if (auto const found = m_places.find(key); found != m_places.end())
    drop(found->second);
  constexpr std::size_t OVERHEAD = 256;
  std::size_t const size = answer.size() + 2 * key.size() + OVERHEAD;
  if (size > m_most)
    return;
  m_entries.push_front({key, answer, size});
  m_places[m_entries.front().key] = m_entries.begin();
  m_size += size;
  while (m_size > m_most)
    drop(std::prev(m_entries.end()));
}

void AnswerCache::clear()
{
  std::lock_guard const guard(m_mutex);
  m_places.clear();
  m_entries.clear();
  m_size = 0;
}

void AnswerCache::drop(std::list<Entry>::iterator entry)
{
  m_size -= entry->size;
  m_places.erase(entry->key);
  m_entries.erase(entry);
}

} // namespace Web
