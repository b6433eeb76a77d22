#include "web/Channel.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Web
{

using CharTraits = std::char_traits<char>;

void Channel::write(std::string_view text)
{
  std::unique_lock lock(m_mutex);
  while (!text.empty())
  {
    if (!m_drained.wait_for(lock, m_patience, [this] { return m_closed || m_bytes.size() < MOST; }))
      throw Gone("the reader takes nothing");
    if (m_closed)
      throw Gone("the reader has gone");
    std::size_t const count = std::min(text.size(), MOST - m_bytes.size());
    m_bytes.append(text.substr(0, count));
    text.remove_prefix(count);
    wakeReader();
  }
}

void Channel::finish(bool whole)
{
  std::lock_guard const guard(m_mutex);
  m_finished = true;
  m_whole = whole;
  wakeReader();
}

Channel::Outcome Channel::read(char* buffer, std::size_t most, std::size_t& count,
                               std::function<void()> const& wait, std::function<void()> wake)
{
  std::lock_guard const guard(m_mutex);
  count = std::min(most, m_bytes.size());
  if (count != 0)
  {
    std::memcpy(buffer, m_bytes.data(), count);
    m_bytes.erase(0, count);
    m_drained.notify_one();
    return SOME;
  }
  if (m_finished)
    return m_whole ? END : BROKEN;
  wait();
  m_wake = std::move(wake);
  return NONE_YET;
}

void Channel::close()
{
  std::lock_guard const guard(m_mutex);
  m_closed = true;
  m_wake = nullptr;
  m_drained.notify_one();
}

void Channel::wakeReader()
{
  if (auto const wake = std::exchange(m_wake, nullptr))
    wake();
}

ChannelStream::ChannelStream(Channel& channel) : std::ostream(this), m_channel(channel)
{
  setp(m_buffer, m_buffer + sizeof m_buffer);
  exceptions(std::ios::badbit);
}

int ChannelStream::overflow(int character)
{
  sync();
  if (!CharTraits::eq_int_type(character, CharTraits::eof()))
    sputc(CharTraits::to_char_type(character));
  return CharTraits::not_eof(character);
}

int ChannelStream::sync()
{
  std::string_view const text(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  setp(m_buffer, m_buffer + sizeof m_buffer);
  m_channel.write(text);
  return 0;
}

LimitedText::LimitedText(std::size_t most) : std::ostream(this), m_most(most)
{
  exceptions(std::ios::badbit);
}

int LimitedText::overflow(int character)
{
  if (!CharTraits::eq_int_type(character, CharTraits::eof()))
  {
    char const c = CharTraits::to_char_type(character);
    xsputn(&c, 1);
  }
  return CharTraits::not_eof(character);
}

std::streamsize LimitedText::xsputn(char const* text, std::streamsize count)
{
  m_full = m_full || m_text.size() + static_cast<std::size_t>(count) > m_most;
  if (!m_full)
    m_text.append(text, static_cast<std::size_t>(count));
  return count;
}

std::string LimitedText::take()
{
  if (m_full)
    throw std::length_error("the answer is too long");
  return std::move(m_text);
}

} // namespace Web
