// Streams of events to those who listen.

#pragma once

#include "web/EventLog.h"
#include "web/KeptList.h"

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

struct MHD_Connection;
struct MHD_Response;

namespace Web
{

// Any thread. A stream that has nothing to send waits without a thread.
class EventStreams
{
public:
  EventStreams(EventLog& log, KeptList const& list, std::size_t most);
  ~EventStreams();
  EventStreams(EventStreams const&) = delete;
  EventStreams& operator=(EventStreams const&) = delete;

  // The caller's; null when there are too many. lastId: that of the last event that the
  // client has met, or null.
  MHD_Response* open(MHD_Connection* connection, std::string const* lastId);

  // Gives signs of life on streams that have been quiet; to be called now and then.
  void tick();

  // Ends all streams and those to come.
  void end();

private:
  struct Stream;

  static ssize_t read(void* stream, std::uint64_t position, char* buffer, std::size_t most);
  static void release(void* stream);

  ssize_t readOne(Stream& stream, char* buffer, std::size_t most);
  void wakeAll();

  EventLog& m_log;
  KeptList const& m_list;
  std::size_t const m_most;
  std::mutex m_mutex;
  std::set<Stream*> m_streams;
  bool m_ending = false;
};

} // namespace Web
