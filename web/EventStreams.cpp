#include "web/EventStreams.h"

#include "tools/Output.h"

#include <algorithm>
#include <cstring>
#include <microhttpd.h>
#include <new>

namespace Web
{

namespace
{

constexpr std::chrono::seconds QUIET(15);
constexpr char SIGN_OF_LIFE[] = ":\n\n";
constexpr std::size_t BLOCK = 4096;

} // namespace

struct EventStreams::Stream
{
  EventStreams& owner;
  MHD_Connection* connection;
  std::uint64_t position;
  std::deque<std::shared_ptr<std::string const>> first; // before those of the log
  std::shared_ptr<std::string const> current;
  std::size_t sent = 0; // of current
  bool waiting = false;
  std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
};

EventStreams::EventStreams(EventLog& log, KeptList const& list, std::size_t most)
    : m_log(log), m_list(list), m_most(most)
{
  m_log.setListener([this] { wakeAll(); });
}

EventStreams::~EventStreams() { m_log.setListener({}); }

MHD_Response* EventStreams::open(MHD_Connection* connection, std::string const* lastId)
{
  auto stream =
      std::make_unique<Stream>(Stream{*this, connection, m_log.begin(lastId), {}, nullptr});
  for (MasterList const& list : m_list.look()->masters)
    stream->first.push_back(std::make_shared<std::string const>(
        EventLog::text({}, "state", tqdiscoctl::jsonText(toJson(list), -1))));
  {
    std::lock_guard const guard(m_mutex);
    if (m_ending || m_streams.size() >= m_most)
      return nullptr;
    m_streams.insert(stream.get());
  }
  MHD_Response* const response =
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, BLOCK, &read, stream.get(), &release);
  if (response == nullptr)
    release(stream.release());
  else
    stream.release(); // NOLINT(bugprone-unused-return-value): the response's
  return response;
}

void EventStreams::release(void* stream)
{
  std::unique_ptr<Stream> const held(static_cast<Stream*>(stream));
  std::lock_guard const guard(held->owner.m_mutex);
  held->owner.m_streams.erase(held.get());
}

ssize_t EventStreams::read(void* stream, std::uint64_t, char* buffer, std::size_t most)
{
  auto& each = *static_cast<Stream*>(stream);
  try
  {
    return each.owner.readOne(each, buffer, most);
  }
  catch (std::bad_alloc const&)
  {
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
}

ssize_t EventStreams::readOne(Stream& stream, char* buffer, std::size_t most)
{
  std::lock_guard const guard(m_mutex);
  if (m_ending)
    return MHD_CONTENT_READER_END_OF_STREAM;
  auto const now = std::chrono::steady_clock::now();
  if (!stream.current)
  {
    stream.sent = 0;
    if (!stream.first.empty())
    {
      stream.current = stream.first.front();
      stream.first.pop_front();
    }
    else
      stream.current = m_log.next(stream.position);
  }
  if (!stream.current && now - stream.last >= QUIET)
    stream.current = std::make_shared<std::string const>(SIGN_OF_LIFE);
  if (!stream.current)
  {
    // Whoever adds an event wakes those that wait under the same lock.
    MHD_suspend_connection(stream.connection);
    stream.waiting = true;
    return 0;
  }
  stream.last = now;
  std::size_t const count = std::min(most, stream.current->size() - stream.sent);
  std::memcpy(buffer, stream.current->data() + stream.sent, count);
  stream.sent += count;
  if (stream.sent == stream.current->size())
    stream.current.reset();
  return static_cast<ssize_t>(count);
}

void EventStreams::wakeAll()
{
  std::lock_guard const guard(m_mutex);
  for (Stream* const stream : m_streams)
    if (std::exchange(stream->waiting, false))
      MHD_resume_connection(stream->connection);
}

void EventStreams::tick()
{
  auto const now = std::chrono::steady_clock::now();
  std::lock_guard const guard(m_mutex);
  for (Stream* const stream : m_streams)
    if (stream->waiting && now - stream->last >= QUIET)
    {
      stream->waiting = false;
      MHD_resume_connection(stream->connection);
    }
}

void EventStreams::end()
{
  {
    std::lock_guard const guard(m_mutex);
    m_ending = true;
  }
  wakeAll();
}

} // namespace Web
