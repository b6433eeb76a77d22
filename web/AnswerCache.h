// Answers that may be asked for again.

#pragma once

#include "web/Answer.h"

#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace Web
{

// Those used last, up to so many bytes. Any thread.
class AnswerCache
{
public:
  explicit AnswerCache(std::size_t most) : m_most(most) {}

  std::optional<Answer> find(std::string const& key);
  void keep(std::string const& key, Answer const& answer);

  // What was kept before is of no use any more.
  void clear();

private:
  struct Entry
  {
    std::string key;
    Answer answer;
    std::size_t size;
  };

  void drop(std::list<Entry>::iterator entry);

  std::size_t const m_most;
  std::mutex m_mutex;
  std::list<Entry> m_entries; // used last, first
  std::map<std::string_view, std::list<Entry>::iterator> m_places;
  std::size_t m_size = 0;
};

} // namespace Web
