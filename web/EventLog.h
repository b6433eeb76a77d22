// What has happened lately, for those who listen.

#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace Web
{

// Events of server-sent event streams as they are sent, numbered. Only the last are
// remembered. Any thread.
class EventLog
{
public:
  static constexpr std::size_t MOST_EVENTS = 10'000;
  static constexpr std::size_t MOST_BYTES = std::size_t(4) << 20;

  // epoch: tells the ids of this log from those of others, as of the process before.
  explicit EventLog(std::string epoch) : m_epoch(std::move(epoch)) {}

  // data: one line. Calls whoever waits.
  void add(char const* event, std::string const& data);

  // What happened has not been written down: an event that says so.
  void reset();

  // Where a stream begins that comes with that id, or with none; a position for next.
  std::uint64_t begin(std::string const* lastId) const;

  // The event at position, which moves on; null when there is none yet. What is
  // forgotten is a reset.
  std::shared_ptr<std::string const> next(std::uint64_t& position) const;

  // Whether there is one at position, or anything before it that has been forgotten.
  bool has(std::uint64_t position) const;

  // Called after each change, by whoever made it.
  void setListener(std::function<void()> listener) { m_listener = std::move(listener); }

  // An event as it is sent; without an id where it is empty.
  static std::string text(std::string_view id, std::string_view event, std::string_view data);

private:
  std::string idOf(std::uint64_t position) const;

  std::string const m_epoch;
  std::function<void()> m_listener;
  mutable std::mutex m_mutex;
  std::deque<std::shared_ptr<std::string const>> m_events;
  std::uint64_t m_first = 1; // the number of the first that is remembered
  std::size_t m_bytes = 0;
};

} // namespace Web
