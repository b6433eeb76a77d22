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
  if (minor == 2 && (type == REQUEST || type == LOCATE_REQUEST))
  {
    // How the object is named: by its key alone. The ORB takes the other ways,
    // which a client may use when it is asked to, for an error of its own.
    std::size_t const at = type == REQUEST ? LONGEST_HEADER - 2 : HEADER + ID;
    if (HEADER + body < at + 2)
      return refused("it is too short");
    if (size < at + 2)
      return {MORE, at + 2};
    if (bytes[at] != 0 || bytes[at + 1] != 0)
      return refused("it does not name its object by a key");
  }
  if (carriesId && (fragments || m_open))
  {
    if (size < HEADER + ID)
      return {MORE, HEADER + ID};
    std::uint32_t const id = number(bytes + HEADER, littleEndian);
    if (m_open && id != m_id)
      return refused("it is a fragment of another message");
    m_id = id;
  }
  m_open = fragments;
  m_minor = minor;
  // A server may pay no attention to it, and would have to find out which call
  // it means.
  return {type == CANCEL_REQUEST ? LEAVE : PASS, HEADER + body};
}

} // namespace Quillon::Tessarine::Ozf
