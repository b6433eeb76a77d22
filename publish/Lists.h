// The lists of several masters, asked for side by side.

#pragma once

#include "publish/Follower.h"
#include "publish/Stop.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace Publish
{

// Has each follower list its master, some at a time in threads of its own, so that one that does
// not answer keeps none of the others waiting. One thread asks.
class Lists
{
public:
  // They must outlive it.
  explicit Lists(std::vector<Follower*> followers);

  // Has lists that are in progress end soon, and waits for that: for the time-out of a call where a
  // master does not answer.
  ~Lists();
  Lists(Lists const&) = delete;
  Lists& operator=(Lists const&) = delete;

  // The number of one whose list is there, or failed; none when no other is left. What was returned
  // before is done with: only so many lists as are asked for at a time are in memory.
  std::optional<std::size_t> next();

private:
  struct Listed
  {
    std::size_t number = 0;
    std::exception_ptr failure;
  };

  void ask();

  std::vector<Follower*> const m_followers;
  Stop m_end;
  std::mutex m_mutex; // of what follows
  std::condition_variable m_changed;
  std::deque<Listed> m_listed;
  std::size_t m_begun = 0;
  std::size_t m_given = 0;
  std::size_t m_done = 0;
  bool m_isOver = false;
  std::vector<std::thread> m_threads;
};

} // namespace Publish
