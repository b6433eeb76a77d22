// The payloads of some records of a master, several on their way at a time.

#pragma once

#include "tools/Records.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace Publish
{

// Fetches ahead in threads of its own, as far as a mebibyte or two. Small payloads alone: a larger
// one is fetched when it is asked for, and of all fetchers one has such a payload at a time, so
// that their number costs no memory. One thread asks.
class Fetcher
{
public:
  struct Payload
  {
    bool isThere = false; // else it could not be read, or has more than most bytes
    std::string bytes;
    std::unique_lock<std::mutex> alone; // held with a large one
  };

  // The records must outlive it. Those on demand have no payload here.
  Fetcher(std::span<tqdiscoctl::Record const> records, std::size_t most);

  // Gives up what has not begun, and waits for what has.
  ~Fetcher();
  Fetcher(Fetcher const&) = delete;
  Fetcher& operator=(Fetcher const&) = delete;

  // That of the next record. Blocks until it was fetched.
  Payload next();

private:
  struct Slot
  {
    bool isDone = false;
    bool isThere = false;
    std::string bytes;
  };

  void fetchAhead();
  bool read(tqdiscoctl::Record const& record, std::size_t most, std::string& bytes) const;

  std::span<tqdiscoctl::Record const> const m_records;
  std::size_t const m_most;
  std::mutex m_mutex; // of what follows
  std::condition_variable m_changed;
  std::vector<Slot> m_slots;
  std::size_t m_begun = 0; // records that were fetched, or are being
  std::size_t m_asked = 0; // records whose payload was asked for
  std::size_t m_held = 0;  // bytes in m_slots
  bool m_isOver = false;
  std::vector<std::thread> m_threads;
};

} // namespace Publish
