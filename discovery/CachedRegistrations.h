// How many registrations of other hosts are in the database.

#pragma once

#include "discovery/Export.h"

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// A registration stays in the database when another has taken its place in the
// registry, so that it is there again should that one be taken away. A peer that
// names one host under ever new authorities would fill the disk so. Any thread.
class TQ_EXPORT CachedRegistrations
{
public:
  // In all, as many as are kept in the registry (LIMIT_REGISTRATIONS). Each host needs one or two.
  static constexpr std::size_t MOST_OF_SUBJECT = 256;

  // Counts one that is there.
  void note(std::string const& subject);

  // Counts one that is to be written; false when there are too many already, of
  // that subject or in all. most is the bound then, and isFull tells which.
  bool reserve(std::string const& subject, std::size_t& most);
  bool isFull() const;
  // It was not written.
  void giveBack(std::string const& subject);

  void clear();

private:
  mutable std::mutex m_mutex;
  std::size_t m_all = 0;
  std::unordered_map<std::string, std::size_t> m_ofSubject;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
