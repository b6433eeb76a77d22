// Flushes of a directory that several writers share.

#pragma once

#include "discovery/Export.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The writers of one directory in this process. What one flush brings to the disk
// are the names that all had given before it began: whoever comes while one is in
// progress waits for the next, which serves all who wait by then. One that comes
// alone waits for nobody. Any thread.
class TQ_EXPORT FlushGroup
{
public:
  // The second is for tests; it takes the descriptor and gives 0 or the error.
  FlushGroup();
  explicit FlushGroup(std::function<int(int)> flush);
  ~FlushGroup();
  FlushGroup(FlushGroup const&) = delete;
  FlushGroup& operator=(FlushGroup const&) = delete;

  // Blocks until a flush is over that began after this call did: 0, or why it
  // failed, for all whom it was to serve; EINTR for the others when it ends with the
  // thread that made it. fd is the open directory. Throws std::bad_alloc.
  int flush(int fd);

  // The group of the directory, made on first use and kept for good.
  static FlushGroup& of(std::string const& directory);

  // For tests: how many wait for a flush that has not begun.
  long waiting() const;

private:
  struct Round;

  std::function<int(int)> const m_flush;
  mutable std::mutex m_mutex; // all below
  std::condition_variable m_over;
  std::shared_ptr<Round> m_next; // null when nobody waits for it
  bool m_inProgress = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
