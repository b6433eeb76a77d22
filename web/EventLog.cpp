#include "web/EventLog.h"

#include <charconv>

namespace Web
{

namespace
{

constexpr std::uint64_t FORGOTTEN = 0;

} // namespace

std::string EventLog::text(std::string_view id, std::string_view event, std::string_view data)
{
  std::string result;
  if (!id.empty())
    result.append("id: ").append(id).append("\n");
  return result.append("event: ").append(event).append("\ndata: ").append(data).append("\n\n");
}

std::string EventLog::idOf(std::uint64_t position) const
{
  return m_epoch + '-' + std::to_string(position);
}

void EventLog::add(char const* event, std::string const& data)
{
  {
    std::lock_guard const guard(m_mutex);
    m_events.push_back(
        std::make_shared<std::string const>(text(idOf(m_first + m_events.size()), event, data)));
    m_bytes += m_events.back()->size();
    while (m_events.size() > MOST_EVENTS || m_bytes > MOST_BYTES)
    {
      m_bytes -= m_events.front()->size();
      m_events.pop_front();
      ++m_first;
    }
  }
  if (m_listener)
    m_listener();
}

void EventLog::reset() { add("reset", "{}"); }

std::uint64_t EventLog::begin(std::string const* lastId) const
{
  std::lock_guard const guard(m_mutex);
  std::uint64_t const end = m_first + m_events.size();
  if (lastId == nullptr)
    return end;
  std::uint64_t last = 0;
  std::string const prefix = m_epoch + '-';
  char const* const stop = lastId->data() + lastId->size();
  if (!lastId->starts_with(prefix))
    return FORGOTTEN;
  auto const [read, error] = std::from_chars(lastId->data() + prefix.size(), stop, last);
  if (error != std::errc() || read != stop || last + 1 < m_first || last >= end)
    return FORGOTTEN;
  return last + 1;
}

std::shared_ptr<std::string const> EventLog::next(std::uint64_t& position) const
{
  std::lock_guard const guard(m_mutex);
  if (position < m_first)
  {
    position = m_first + m_events.size();
    return std::make_shared<std::string const>(text(idOf(position - 1), "reset", "{}"));
  }
  if (position - m_first >= m_events.size())
    return nullptr;
  return m_events[position++ - m_first];
}

bool EventLog::has(std::uint64_t position) const
{
  std::lock_guard const guard(m_mutex);
  return position < m_first + m_events.size();
}

} // namespace Web
