#include "ozf/orb/GuardedInput.h"

#include <algorithm>
#include <cstring>

namespace Quillon::Tessarine::Ozf
{

void GuardedInput::drop(std::size_t size) noexcept
{
  m_begin += size;
  if (m_begin == m_end)
    m_begin = m_end = 0;
}

void GuardedInput::dropIgnored() noexcept
{
  std::size_t const come = std::min(m_ignored, held());
  drop(come);
  m_ignored -= come;
}

void GuardedInput::shrink() noexcept
{
  if (held() == 0)
    m_buffer.reset();
}

GuardedInput::Holding GuardedInput::holding() noexcept
{
  if (m_reason != nullptr)
    return REFUSED;
  MessageRules ahead = m_rules;
  dropIgnored();
  std::size_t at = 0;
  while (at < held())
  {
    auto const judgement = ahead.judge(front() + at, held() - at);
    if (judgement.verdict == MessageRules::REFUSED)
      return REFUSED;
    if (judgement.verdict == MessageRules::MORE)
      break;
    if (judgement.verdict == MessageRules::LEAVE)
    {
      // Never within a message in fragments, so it is the first.
      m_rules = ahead;
      m_ignored = judgement.size;
      dropIgnored();
      continue;
    }
    at += judgement.size;
    if (at <= held() && !ahead.expectsFragment())
      return WHOLE;
  }
  if (held() == CAPACITY)
    return LARGE;
  return held() == 0 && m_ignored == 0 ? NOTHING : PART;
}

int GuardedInput::fill(Read const& read)
{
  if (!m_buffer)
    m_buffer = std::make_unique_for_overwrite<char[]>(CAPACITY);
  if (m_begin != 0)
  {
    std::memmove(m_buffer.get(), front(), held());
    m_end -= m_begin;
    m_begin = 0;
  }
  int const got = read(m_buffer.get() + m_end, CAPACITY - m_end);
  m_end += static_cast<std::size_t>(std::max(got, 0));
  return got;
}

int GuardedInput::deliver(void* data, std::size_t size, Read const& read)
{
  while (m_reason == nullptr)
  {
    if (m_left != 0 && held() == 0)
    {
      int const got = read(data, std::min(size, m_left));
      m_left -= static_cast<std::size_t>(std::max(got, 0));
      return got;
    }
    if (m_left != 0)
    {
      std::size_t const given = std::min({size, m_left, held()});
      std::memcpy(data, front(), given);
      drop(given);
      m_left -= given;
      return static_cast<int>(given);
    }
    dropIgnored();
    MessageRules::Judgement judgement{MessageRules::MORE};
    if (m_ignored == 0)
      judgement = m_rules.judge(front(), held());
    switch (judgement.verdict)
    {
    case MessageRules::MORE:
      if (int const got = fill(read); got <= 0)
        return got;
      break;
    case MessageRules::PASS:
      m_left = judgement.size;
      break;
    case MessageRules::LEAVE:
      m_ignored = judgement.size;
      break;
    case MessageRules::REFUSED:
      m_reason = judgement.reason;
      break;
    }
  }
  return -1;
}

} // namespace Quillon::Tessarine::Ozf
