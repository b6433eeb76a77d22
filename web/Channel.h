// Bytes on their way from who makes them to who is sent them.

#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>

namespace Web
{

// One thread writes, others read. Holds no more than MOST bytes.
class Channel
{
public:
  static constexpr std::size_t MOST = std::size_t(64) << 10;

  // What a writer meets whose reader has gone, or takes nothing for so long.
  struct Gone : std::runtime_error
  {
    using std::runtime_error::runtime_error;
  };

  explicit Channel(std::chrono::seconds patience) : m_patience(patience) {}

  void write(std::string_view text);

  // Nothing more comes; whole: of what should have come nothing is missing.
  void finish(bool whole);

  enum Outcome
  {
    SOME,
    NONE_YET,
    END,
    BROKEN
  };

  // Up to most bytes into buffer. When there are none yet, wait is called under the lock, and
  // wake as soon as there is something, by the thread that writes.
  Outcome read(char* buffer, std::size_t most, std::size_t& count,
               std::function<void()> const& wait, std::function<void()> wake);

  // Nobody reads any more.
  void close();

private:
  void wakeReader();

  std::chrono::seconds const m_patience;
  std::mutex m_mutex;
  std::condition_variable m_drained;
  std::string m_bytes;
  std::function<void()> m_wake; // empty while nobody waits
  bool m_finished = false;
  bool m_whole = false;
  bool m_closed = false;
};

// A stream into a channel; what Channel::write throws comes out of it.
class ChannelStream : private std::streambuf, public std::ostream
{
public:
  explicit ChannelStream(Channel& channel);

private:
  int overflow(int character) override;
  int sync() override;

  Channel& m_channel;
  char m_buffer[16384];
};

// A stream into a text of so many bytes at most. What goes beyond is dropped: whoever writes may be
// called by a reader of XML, which takes what is thrown for a mistake in what it reads.
class LimitedText : private std::streambuf, public std::ostream
{
public:
  explicit LimitedText(std::size_t most);

  // Throws std::length_error when something was dropped.
  std::string take();

private:
  int overflow(int character) override;
  std::streamsize xsputn(char const* text, std::streamsize count) override;

  std::size_t const m_most;
  std::string m_text;
  bool m_full = false;
};

} // namespace Web
