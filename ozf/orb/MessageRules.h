// What a peer may send over a connection, message by message.
//
// The ORB trusts the headers of messages. Two requests of one number that come
// in fragments at a time make it write into memory that is no longer its own: it
// gives a fragment to the first request of that number that it finds, and that
// may be one whose fragments are complete and whose call runs on another thread.
// A size close to 2^32 makes it allocate without end; a cancelled request of the
// number that stands for none leaves a thread waiting for ever; an object that
// is named by its profile makes it answer one request again and again. It makes
// room for as many service contexts as a request claims to have, and keeps that
// and the object's key while the connection lasts. An answer of version 1.0 or 1.1
// to no request of the connection it reads to its end while nothing else in the
// process can call or answer. So it is shown only what follows these rules.
// Clients and servers of any make do.
//
// With these rules and one request of a connection at a time
// (maxServerThreadPerConnection in ozf/orb/CorbaProcess.cpp) each fragment belongs
// to the request that is being read. Either alone leaves a gap: without the rules
// one thread still meets fragments of other requests, and with more threads two
// requests of one number that follow each other properly are mixed up.

#pragma once

#include "ozf/base/Export.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace Quillon::Tessarine::Ozf
{

// Follows one direction of one connection. A copy can be used to look ahead.
class OZF_EXPORT MessageRules
{
public:
  enum Direction
  {
    REQUESTS, // what a server receives
    REPLIES   // what a client receives
  };

  explicit MessageRules(Direction direction) noexcept : m_direction(direction) {}

  // The request that is answered next, for REPLIES. Without it there is none.
  void expectAnswerTo(std::uint32_t request) noexcept { m_asked = request; }

  // What a request says before its arguments, and an answer of an old version
  // before its results, is not longer than this with the message's own header.
  // As many bytes are enough to judge any message.
  static constexpr std::size_t LONGEST_HEADER = 4096;

  enum Verdict
  {
    MORE,   // size bytes of the beginning are needed
    PASS,   // the message has size bytes and is for the ORB
    LEAVE,  // the message has size bytes and is not: nothing is lost without it
    REFUSED // the connection is to end; reason says why
  };
  struct Judgement
  {
    Verdict verdict;
    std::size_t size = 0;
    char const* reason = nullptr;
  };

  // Judges the message that begins with the given bytes, of which it looks at
  // no more than LONGEST_HEADER. After PASS and LEAVE the next bytes are those
  // that follow the message.
  Judgement judge(char const* data, std::size_t size) noexcept;

  // Whether the message passed last goes on in another.
  bool expectsFragment() const noexcept { return m_open; }

private:
  bool isAllowed(unsigned type) const noexcept;

  Direction m_direction;
  bool m_open = false; // a message in fragments has begun and not ended
  unsigned char m_minor = 0;
  bool m_littleEndian = false;
  std::uint32_t m_id = 0; // of the open one, from version 1.2 on
  std::optional<std::uint32_t> m_asked;
};

} // namespace Quillon::Tessarine::Ozf
