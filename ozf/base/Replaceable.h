// What any thread may look at while another puts something new in its place.
//
// std::atomic<std::shared_ptr> is meant for that; in the library of GCC 12, what a
// load has read is not ordered before what a later store writes.

#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

// All operations may be called from any thread; none waits for longer than another
// takes.
template <class T>
class Replaceable
{
public:
  explicit Replaceable(std::shared_ptr<T const> first = nullptr) : m_current(std::move(first)) {}

  std::shared_ptr<T const> get() const noexcept
  {
    std::lock_guard const guard(m_mutex);
    return m_current;
  }

  // What was there stays for whoever has got it.
  void replace(std::shared_ptr<T const> next) noexcept
  {
    std::lock_guard const guard(m_mutex);
    m_current.swap(next);
  }

private:
  mutable std::mutex m_mutex;
  std::shared_ptr<T const> m_current;
};

} // namespace Quillon::Tessarine::Ozf
