// What has come in over a connection and the ORB has not read yet.

#pragma once

#include "ozf/orb/MessageRules.h"

#include <functional>
#include <memory>

namespace Quillon::Tessarine::Ozf
{

// Not for use by two threads at once.
class OZF_EXPORT GuardedInput
{
public:
  // A read of at most so many bytes: how many came, 0 when the time ran out, and
  // a negative number when there will be no more.
  using Read = std::function<int(void* data, std::size_t size)>;

  // So many bytes are held at most.
  static constexpr std::size_t CAPACITY = 8192;
  static_assert(MessageRules::LONGEST_HEADER < CAPACITY);

  explicit GuardedInput(MessageRules::Direction direction) : m_rules(direction) {}

  // As MessageRules.
  void expectAnswerTo(std::uint32_t request) noexcept { m_rules.expectAnswerTo(request); }

  enum Holding
  {
    NOTHING, // no byte of a message
    PART,    // of a message, and there is room for more of it
    LARGE,   // the first bytes of a message that does not fit
    WHOLE,   // a message with all of its fragments
    REFUSED  // a message that is not for the ORB
  };

  // What the ORB would find now. Only between two messages.
  Holding holding() noexcept;

  // Reads what there is room for, which is not nothing after PART and NOTHING;
  // as Read. Throws std::bad_alloc.
  int fill(Read const& read);

  // Gives back the memory when nothing is held: connections that are silent are
  // many.
  void shrink() noexcept;

  // Gives bytes to the ORB, never of two messages at once, reading when none are
  // held; as Read. Negative, and reason is set, after a message that is refused.
  int deliver(void* data, std::size_t size, Read const& read);

  // Whether what was delivered last ended in the middle of a message or of its
  // fragments.
  bool insideMessage() const noexcept { return m_left != 0 || m_rules.expectsFragment(); }

  // Why a message was refused; null when none was.
  char const* reason() const noexcept { return m_reason; }

private:
  std::size_t held() const noexcept { return m_end - m_begin; }
  char const* front() const noexcept { return m_buffer.get() + m_begin; }
  void drop(std::size_t size) noexcept;
  void dropIgnored() noexcept;

  MessageRules m_rules;
  std::unique_ptr<char[]> m_buffer; // null, or CAPACITY bytes
  std::size_t m_begin = 0;          // what comes before has been delivered
  std::size_t m_end = 0;
  std::size_t m_left = 0;    // of the message being delivered
  std::size_t m_ignored = 0; // to come, of a message that is left out
  char const* m_reason = nullptr;
};

} // namespace Quillon::Tessarine::Ozf
