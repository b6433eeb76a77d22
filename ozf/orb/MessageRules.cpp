#include "ozf/orb/MessageRules.h"

#include <cstring>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t HEADER = 12;
constexpr std::size_t ID = 4;
constexpr std::size_t FRAGMENT_GRAIN = 8;
// More is not only beyond every limit: the ORB adds to it in 32 bits.
constexpr std::uint32_t LARGEST_BODY = 0x7fffffff - HEADER;

constexpr unsigned char LITTLE_ENDIAN_FLAG = 1;
constexpr unsigned char MORE_FRAGMENTS_FLAG = 2;

enum MessageType : unsigned
{
  REQUEST = 0,
  REPLY = 1,
  CANCEL_REQUEST = 2,
  LOCATE_REQUEST = 3,
  LOCATE_REPLY = 4,
  CLOSE_CONNECTION = 5,
  MESSAGE_ERROR = 6,
  FRAGMENT = 7
};

std::uint32_t number(unsigned char const* bytes, bool littleEndian)
{
  std::uint32_t value = 0;
  for (unsigned i = 0; i < 4; ++i)
    value |= static_cast<std::uint32_t>(bytes[littleEndian ? i : 3 - i]) << (8 * i);
  return value;
}

MessageRules::Judgement refused(char const* reason) { return {MessageRules::REFUSED, 0, reason}; }

// Goes over the beginning of a message, of which not all need be there, and
// stays where it cannot go on.
class HeaderWalk
{
public:
  HeaderWalk(unsigned char const* bytes, std::size_t held, std::size_t end, bool littleEndian)
      : m_bytes(bytes), m_held(held), m_end(end), m_littleEndian(littleEndian)
  {
  }

  void skip(std::size_t size) noexcept
  {
    if (!goesOn())
      return;
    std::size_t const next = m_at + size;
    if (next > m_end)
      m_outcome = refused("it is too short");
    else if (next > MessageRules::LONGEST_HEADER)
      m_outcome = refused("its header is too long");
    else if (next > m_held)
      m_outcome = {MessageRules::MORE, next};
    else
      m_at = next;
  }

  std::uint32_t number() noexcept
  {
    skip((4 - m_at % 4) % 4);
    std::size_t const at = m_at;
    skip(4);
    return goesOn() ? Ozf::number(m_bytes + at, m_littleEndian) : 0;
  }

  void octets() noexcept { skip(number()); }

  void serviceContexts() noexcept
  {
    for (std::uint32_t left = number(); left != 0 && goesOn(); --left)
    {
      number();
      octets();
    }
  }

  // How the object is named: by its key alone. The ORB takes the other ways,
  // which a client may use when it is asked to, for an error of its own.
  void key(bool canBeNamedOtherwise) noexcept
  {
    if (canBeNamedOtherwise)
    {
      std::size_t const at = m_at;
      skip(2);
      if (goesOn() && (m_bytes[at] != 0 || m_bytes[at + 1] != 0))
        m_outcome = refused("it does not name its object by a key");
    }
    octets();
  }

  bool goesOn() const noexcept { return m_outcome.verdict == MessageRules::PASS; }
  MessageRules::Judgement outcome() const noexcept { return m_outcome; }

private:
  unsigned char const* const m_bytes;
  std::size_t const m_held;
  std::size_t const m_end;
  bool const m_littleEndian;
  std::size_t m_at = HEADER;
  MessageRules::Judgement m_outcome{MessageRules::PASS};
};

// Up to the arguments or results. Returns the number of the request.
std::uint32_t walkOver(HeaderWalk& walk, unsigned type, unsigned char minor)
{
  bool const call = type == REQUEST || type == REPLY;
  if (call && minor < 2)
    walk.serviceContexts();
  std::uint32_t const id = walk.number();
  if (type == REQUEST)
  {
    walk.skip(minor == 0 ? 1 : 4); // whether an answer is expected
    walk.key(minor == 2);
    walk.octets(); // operation
    if (minor < 2)
      walk.octets(); // principal
    else
      walk.serviceContexts();
  }
  else if (type == LOCATE_REQUEST)
    walk.key(minor == 2);
  return id;
}

} // namespace

bool MessageRules::isAllowed(unsigned type) const noexcept
{
  switch (type)
  {
  case REQUEST:
  case CANCEL_REQUEST:
  case LOCATE_REQUEST:
    return m_direction == REQUESTS;
  case REPLY:
  case LOCATE_REPLY:
    return m_direction == REPLIES;
  case CLOSE_CONNECTION:
  case MESSAGE_ERROR:
  case FRAGMENT:
    return true;
  default:
    return false;
  }
}

MessageRules::Judgement MessageRules::judge(char const* data, std::size_t size) noexcept
{
  if (size == 0)
    return {MORE, HEADER};
  if (size < HEADER)
  {
    std::size_t const shown = size < 4 ? size : 4;
    return std::memcmp(data, "GIOP", shown) == 0 ? Judgement{MORE, HEADER}
                                                 : refused("it is no GIOP message");
  }
  auto const* const bytes = reinterpret_cast<unsigned char const*>(data);
  unsigned char const minor = bytes[5];
  unsigned char const flags = bytes[6];
  unsigned const type = bytes[7];
  bool const littleEndian = (flags & LITTLE_ENDIAN_FLAG) != 0;
  bool const fragments = minor > 0 && (flags & MORE_FRAGMENTS_FLAG) != 0;
  std::uint32_t const body = number(bytes + 8, littleEndian);

  if (std::memcmp(data, "GIOP", 4) != 0)
    return refused("it is no GIOP message");
  if (bytes[4] != 1 || minor > 2)
    return refused("its GIOP version is not known");
  if (!isAllowed(type))
    return refused("its type is not for this side of a connection");
  if (body > LARGEST_BODY)
    return refused("it is too long");

  // From here on what could confuse the ORB about which message belongs where.
  bool const carriesId = minor == 2 && type != CLOSE_CONNECTION && type != MESSAGE_ERROR;
  if (carriesId && body < ID)
    return refused("it is too short");
  if (type == CANCEL_REQUEST && (body != ID || fragments))
    return refused("it is no way to cancel a request");
  if ((type == CLOSE_CONNECTION || type == MESSAGE_ERROR) && (body != 0 || fragments))
    return refused("it has more to it than its type allows");
  if (m_open != (type == FRAGMENT))
    return refused(m_open ? "another message has not ended" : "it is a fragment of no message");
  if (m_open && minor != m_minor)
    return refused("it is a fragment of another version");
  if (fragments && carriesId && (HEADER + body) % FRAGMENT_GRAIN != 0)
    return refused("it is fragmented at an odd place");
  if (m_open && littleEndian != m_littleEndian)
    return refused("it is a fragment in another order of bytes");
  bool const isCall =
      type == REQUEST || type == REPLY || type == LOCATE_REQUEST || type == LOCATE_REPLY;
  if (isCall || (type == FRAGMENT && carriesId))
  {
    HeaderWalk walk(bytes, size, HEADER + body, littleEndian);
    std::uint32_t const id = walkOver(walk, type, minor);
    if (!walk.goesOn())
      return walk.outcome();
    if (m_open && id != m_id)
      return refused("it is a fragment of another message");
    if ((type == REPLY || type == LOCATE_REPLY) && id != m_asked)
      return refused("it answers no request");
    m_id = id;
  }
  m_open = fragments;
  m_minor = minor;
  m_littleEndian = littleEndian;
  // A server may pay no attention to it, and would have to find out which call
  // it means.
  return {type == CANCEL_REQUEST ? LEAVE : PASS, HEADER + body};
}

} // namespace Quillon::Tessarine::Ozf
