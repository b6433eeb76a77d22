// Messages between ORBs, changed at random by what their bytes mean: sizes, kinds,
// versions, numbers of requests, lengths within, fragments, their order and their
// number. The same seed changes the same messages in the same way.

#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace tqtest::giop
{

inline constexpr std::size_t HEADER = 12;
inline constexpr std::size_t LARGEST = 16 << 20; // what is taken for the size of a message

enum Type : unsigned char
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

inline bool isLittle(std::string const& message) { return (message[6] & 1) != 0; }

inline std::uint32_t numberAt(std::string const& bytes, std::size_t at, bool little)
{
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value |=
        static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + (little ? i : 3 - i)]))
        << (8 * i);
  return value;
}

inline void setNumber(std::string& bytes, std::size_t at, std::uint32_t value, bool little)
{
  for (std::size_t i = 0; i < 4; ++i)
    bytes[at + (little ? i : 3 - i)] = static_cast<char>(value >> (8 * i));
}

inline void fitSize(std::string& message)
{
  setNumber(message, 8, static_cast<std::uint32_t>(message.size() - HEADER), isLittle(message));
}

// A message of version 1.2, little endian.
inline std::string makeMessage(Type type, std::string const& body, bool more = false)
{
  std::string message("GIOP\1\2", 6);
  message += static_cast<char>(more ? 3 : 1);
  message += static_cast<char>(type);
  message.append(4, '\0');
  message += body;
  fitSize(message);
  return message;
}

// Takes the first whole message off the bytes; none when it is not all there.
// What is no message is taken as one, all of it.
inline std::optional<std::string> takeMessage(std::string& bytes)
{
  if (bytes.size() < HEADER)
    return std::nullopt;
  std::size_t size = HEADER;
  if (bytes.compare(0, 4, "GIOP") == 0)
    size += numberAt(bytes, 8, isLittle(bytes));
  if (bytes.compare(0, 4, "GIOP") != 0 || size > LARGEST)
    size = bytes.size();
  if (bytes.size() < size)
    return std::nullopt;
  std::string message = bytes.substr(0, size);
  bytes.erase(0, size);
  return message;
}

class Mutator
{
public:
  using Messages = std::vector<std::string>;

  explicit Mutator(std::uint32_t seed) : m_random(seed) {}

  std::uint32_t below(std::uint32_t limit)
  {
    return static_cast<std::uint32_t>(m_random()) % limit;
  }
  // Once in so many times.
  bool once(std::uint32_t times) { return below(times) == 0; }

  // What goes in the place of a message: none, it, another, or several.
  Messages mutate(std::string message)
  {
    if (message.size() < HEADER)
      return {message};
    switch (below(16))
    {
    case 0:
      setNumber(message, 8, oddSize(message), isLittle(message));
      break;
    case 1:
      message[5] = static_cast<char>(once(8) ? below(256) : below(3));
      break;
    case 2:
      message[6] = static_cast<char>(message[6] ^ (once(4) ? 1 << below(8) : 1 << below(2)));
      break;
    case 3:
      message[7] = static_cast<char>(once(8) ? below(256) : below(9));
      break;
    case 4:
    case 5:
    case 6:
      setWord(message);
      break;
    case 7:
      changeBytes(message);
      break;
    case 8:
      message.resize(HEADER + below(static_cast<std::uint32_t>(message.size() - HEADER + 1)));
      fitSize(message);
      break;
    case 9:
      message.append(1 + below(64), static_cast<char>(below(256)));
      if (!once(3))
        fitSize(message);
      break;
    case 10:
    case 11:
      return fragments(message);
    case 12:
      return {message, message};
    case 13:
      return {stranger(message), message};
    case 14:
      return once(2) ? Messages{} : Messages{message.substr(0, below(messageSize(message)))};
    default:
      changeText(message);
      break;
    }
    return {message};
  }

private:
  static std::uint32_t messageSize(std::string const& message)
  {
    return static_cast<std::uint32_t>(message.size());
  }

  std::uint32_t oddNumber(std::uint32_t usual)
  {
    std::uint32_t const odd[] = {0,          1,          usual + 1,       usual - 1,
                                 usual + 8,  0x7fffffff, 0x80000000,      0xffffffff,
                                 0xfffffff0, 4096,       2097152 + usual, below(0xffffffff)};
    return odd[below(std::size(odd))];
  }

  std::uint32_t oddSize(std::string const& message)
  {
    return oddNumber(messageSize(message) - static_cast<std::uint32_t>(HEADER));
  }

  // Lengths, counts, kinds, numbers of requests: all are words at multiples of
  // four.
  void setWord(std::string& message)
  {
    std::size_t const words = (message.size() - HEADER) / 4;
    if (words == 0)
      return;
    // The first ones mean most.
    std::size_t const word =
        once(2) ? below(static_cast<std::uint32_t>(std::min<std::size_t>(words, 12)))
                : below(static_cast<std::uint32_t>(words));
    std::size_t const at = HEADER + 4 * word;
    setNumber(message, at, oddNumber(numberAt(message, at, isLittle(message))), isLittle(message));
  }

  void changeBytes(std::string& message)
  {
    for (std::uint32_t i = 1 + below(4); i != 0; --i)
      message[below(messageSize(message))] = static_cast<char>(below(256));
  }

  // The content of a text that its length comes before.
  void changeText(std::string& message)
  {
    bool const little = isLittle(message);
    std::vector<std::size_t> texts;
    for (std::size_t at = HEADER; at + 8 <= message.size(); at += 4)
    {
      std::uint32_t const length = numberAt(message, at, little);
      if (length > 1 && length < 4096 && at + 4 + length <= message.size() &&
          message[at + 3 + length] == '\0')
        texts.push_back(at);
    }
    if (texts.empty())
      return changeBytes(message);
    std::size_t const at = texts[below(static_cast<std::uint32_t>(texts.size()))];
    std::uint32_t const length = numberAt(message, at, little);
    constexpr char ODD[] = {'\0', '\n', '\x1b', '*', '%', '/', '.', '\xff', '\xe2', '<', '&', ' '};
    for (std::uint32_t i = 1 + below(length); i != 0; --i)
      message[at + 4 + below(length)] = ODD[below(sizeof ODD)];
  }

  // The message in fragments, as they should be or nearly so.
  Messages fragments(std::string const& message)
  {
    bool const little = isLittle(message);
    bool const carriesId = message[5] == 2;
    std::size_t const smallest = HEADER + (carriesId ? 12 : 4);
    if (message.size() < smallest + 8 || message[5] == 0)
      return {message, message};
    std::uint32_t const id = numberAt(message, HEADER, little);
    Messages parts;
    std::size_t at = 0;
    while (at < message.size())
    {
      std::size_t const room = message.size() - at;
      std::size_t take = at == 0 ? smallest + below(static_cast<std::uint32_t>(room))
                                 : 1 + below(messageSize(message));
      take = std::min(room, once(8) ? take : (take + 7) / 8 * 8 + (at == 0 ? 0 : 4));
      std::string part;
      if (at == 0)
        part = message.substr(0, take);
      else
      {
        part = message.substr(0, HEADER);
        part[7] = FRAGMENT;
        if (carriesId)
        {
          part.append(4, '\0');
          setNumber(part, HEADER, once(12) ? oddNumber(id) : id, little);
        }
        part += message.substr(at, take);
      }
      at += take;
      bool const more = (at < message.size()) != once(16);
      part[6] = static_cast<char>((part[6] & ~2) | (more ? 2 : 0));
      fitSize(part);
      parts.push_back(part);
    }
    if (parts.size() > 1 && once(6))
      std::swap(parts[below(static_cast<std::uint32_t>(parts.size()))], parts.front());
    if (parts.size() > 1 && once(6))
      parts.insert(parts.begin() + 1, stranger(message));
    return parts;
  }

  // Another message beside that one.
  std::string stranger(std::string const& message)
  {
    bool const little = isLittle(message);
    std::uint32_t const id = message.size() >= HEADER + 4 ? numberAt(message, HEADER, little) : 0;
    constexpr Type types[] = {CANCEL_REQUEST, CLOSE_CONNECTION, MESSAGE_ERROR, FRAGMENT,
                              REPLY,          LOCATE_REPLY,     LOCATE_REQUEST};
    Type const type = types[below(std::size(types))];
    std::string other = message.substr(0, HEADER);
    other[7] = static_cast<char>(type);
    other[6] = static_cast<char>(other[6] & 1);
    if (type != CLOSE_CONNECTION && type != MESSAGE_ERROR)
    {
      other.append(4, '\0');
      setNumber(other, HEADER, once(2) ? id : oddNumber(id), little);
    }
    if (type == REPLY || type == LOCATE_REPLY || type == FRAGMENT)
      other.append(4 * below(16), static_cast<char>(once(2) ? 0 : below(256)));
    fitSize(other);
    return other;
  }

  std::mt19937 m_random;
};

} // namespace tqtest::giop
