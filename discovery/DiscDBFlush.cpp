#include "discovery/DiscDBFlush.h"

#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// One flush, from when the first wants it.
struct FlushGroup::Round
{
  long members = 0;
  bool over = false;
  int error = 0;
};

FlushGroup::FlushGroup() : FlushGroup([](int fd) { return ::fsync(fd) == 0 ? 0 : errno; }) {}

FlushGroup::FlushGroup(std::function<int(int)> flush) : m_flush(std::move(flush)) {}

FlushGroup::~FlushGroup() = default;

int FlushGroup::flush(int fd)
{
  std::unique_lock lock(m_mutex);
  if (!m_next)
    m_next = std::make_shared<Round>();
  auto const round = m_next;
  ++round->members;
  m_over.wait(lock, [&] { return round->over || !m_inProgress; });
  if (round->over)
    return round->error;
  // The first of them to get here does it for all. From now on others want the
  // round after it.
  m_inProgress = true;
  m_next.reset();
  lock.unlock();
  // However it ends, the thread's own end included: whom it was to serve, and who
  // waits for the next, would wait for ever.
  struct End
  {
    ~End()
    {
      std::lock_guard const relock(group.m_mutex);
      group.m_inProgress = false;
      served.over = true;
      served.error = error;
      group.m_over.notify_all();
    }
    FlushGroup& group;
    Round& served;
    int error = EINTR;
  } end{*this, *round};
  return end.error = m_flush(fd);
}

FlushGroup& FlushGroup::of(std::string const& directory)
{
  // Never destroyed: the last writers may outlive every static object.
  static auto& mutex = *new std::mutex;
  static auto& groups = *new std::map<std::string, FlushGroup>;
  std::lock_guard const lock(mutex);
  return groups[directory];
}

long FlushGroup::waiting() const
{
  std::lock_guard const lock(m_mutex);
  return m_next ? m_next->members : 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
