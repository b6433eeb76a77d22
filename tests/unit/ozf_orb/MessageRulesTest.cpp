#include "ozf/orb/GuardedInput.h"
#include "ozf/orb/MessageRules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

enum Kind : char
{
  REQUEST = 0,
  REPLY = 1,
  CANCEL = 2,
  LOCATE = 3,
  CLOSE = 5,
  FRAGMENT = 7
};

std::string bytesOf(std::uint32_t value)
{
  std::string bytes;
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(value >> shift);
  return bytes;
}

std::string headerOf(Kind kind, std::uint32_t size, bool more = false, char minor = 2)
{
  return std::string("GIOP\1") + minor + (more ? '\3' : '\1') + static_cast<char>(kind) +
         bytesOf(size);
}

std::string messageOf(Kind kind, std::uint32_t id, std::size_t more = 12, bool fragments = false,
                      char minor = 2)
{
  return headerOf(kind, static_cast<std::uint32_t>(4 + more), fragments, minor) + bytesOf(id) +
         std::string(more, '\0');
}

// What comes out of the messages at the end that the ORB has.
std::string deliveredFrom(std::string const& bytes, std::size_t step,
                          MessageRules::Direction direction, char const** reason = nullptr)
{
  GuardedInput input(direction);
  std::string delivered;
  std::size_t at = 0;
  auto const read = [&](void* to, std::size_t room)
  {
    std::size_t const size = std::min({room, step, bytes.size() - at});
    std::memcpy(to, bytes.data() + at, size);
    at += size;
    return size == 0 ? -1 : static_cast<int>(size);
  };
  char buffer[100];
  for (int got = 0; (got = input.deliver(buffer, sizeof buffer, read)) > 0;)
    delivered.append(buffer, static_cast<std::size_t>(got));
  if (reason != nullptr)
    *reason = input.reason();
  return delivered;
}

std::string refusalOf(std::string const& bytes,
                      MessageRules::Direction direction = MessageRules::REQUESTS)
{
  std::string first;
  for (std::size_t const step : {std::size_t(1), std::size_t(5), bytes.size()})
  {
    char const* reason = nullptr;
    deliveredFrom(bytes, step, direction, &reason);
    std::string const said = reason == nullptr ? "" : reason;
    if (step == 1)
      first = said;
    EXPECT_EQ(said, first) << "in steps of " << step;
  }
  return first;
}

} // namespace

TEST(MessageRulesTest, requestsPassAsTheyCameInWhateverPieces)
{
  std::string const bytes =
      messageOf(REQUEST, 1) + messageOf(REQUEST, 2, 16, true) + messageOf(FRAGMENT, 2, 8, true) +
      messageOf(FRAGMENT, 2, 3) + messageOf(LOCATE, 3) + messageOf(REQUEST, 2, 4000) +
      messageOf(REQUEST, 1, 60, false, 0) + messageOf(REQUEST, 1, 20000) + headerOf(CLOSE, 0);
  for (std::size_t const step : {std::size_t(1), std::size_t(7), std::size_t(1000), bytes.size()})
    EXPECT_EQ(deliveredFrom(bytes, step, MessageRules::REQUESTS), bytes) << step;
}

TEST(MessageRulesTest, repliesPassAsTheyCame)
{
  std::string const bytes = messageOf(REPLY, 1) + messageOf(REPLY, 2, 8, true) +
                            messageOf(FRAGMENT, 2, 3) + headerOf(CLOSE, 0);
  EXPECT_EQ(deliveredFrom(bytes, 9, MessageRules::REPLIES), bytes);
}

TEST(MessageRulesTest, aCancelledRequestIsLeftOut)
{
  std::string const cancel = messageOf(CANCEL, 0xffffffff, 0);
  std::string const request = messageOf(REQUEST, 1);
  std::string const all = cancel + request + cancel + cancel + request + cancel;
  for (std::size_t const step : {std::size_t(1), std::size_t(13), all.size()})
    EXPECT_EQ(deliveredFrom(all, step, MessageRules::REQUESTS), request + request) << step;
}

TEST(MessageRulesTest, requestsInFragmentsMustNotOverlap)
{
  std::string const begun = messageOf(REQUEST, 7, 16, true);
  std::string const end = messageOf(FRAGMENT, 7, 3);
  EXPECT_EQ(refusalOf(begun + end + begun + end), "");
  EXPECT_EQ(refusalOf(begun + begun + end + end), "another message has not ended");
  EXPECT_EQ(refusalOf(begun + messageOf(REQUEST, 8) + end), "another message has not ended");
  EXPECT_EQ(refusalOf(begun + messageOf(CANCEL, 7, 0)), "another message has not ended");
  EXPECT_EQ(refusalOf(begun + headerOf(CLOSE, 0)), "another message has not ended");
  EXPECT_EQ(refusalOf(begun + messageOf(FRAGMENT, 8, 3)), "it is a fragment of another message");
  EXPECT_EQ(refusalOf(begun + messageOf(FRAGMENT, 7, 3, false, 1)),
            "it is a fragment of another version");
  EXPECT_EQ(refusalOf(begun + end + end), "it is a fragment of no message");
  EXPECT_EQ(refusalOf(messageOf(REQUEST, 7, 13, true)), "it is fragmented at an odd place");
}

TEST(MessageRulesTest, sizesThatTheOrbCannotAddToAreRefused)
{
  for (std::uint32_t const size : {0xfffffff4U, 0xffffffffU, 0x80000000U, 0x7ffffff4U})
    EXPECT_EQ(refusalOf(headerOf(REQUEST, size) + std::string(40, '\0')), "it is too long") << size;
  EXPECT_EQ(refusalOf(headerOf(REPLY, 0xfffffff4U), MessageRules::REPLIES), "it is too long");
}

TEST(MessageRulesTest, messagesThatAreTooShortForWhatTheyAreAreRefused)
{
  EXPECT_EQ(refusalOf(headerOf(FRAGMENT, 3, false) + "abc"), "it is too short");
  EXPECT_EQ(refusalOf(headerOf(REQUEST, 0)), "it is too short");
  EXPECT_EQ(refusalOf(messageOf(REQUEST, 1, 5)), "it is too short");
  EXPECT_EQ(refusalOf(messageOf(LOCATE, 1, 1)), "it is too short");
  EXPECT_EQ(refusalOf(headerOf(REPLY, 2) + "ab", MessageRules::REPLIES), "it is too short");
  EXPECT_EQ(refusalOf(messageOf(CANCEL, 1, 1)), "it is no way to cancel a request");
  EXPECT_EQ(refusalOf(headerOf(CLOSE, 4) + "abcd"), "it has more to it than its type allows");
}

TEST(MessageRulesTest, whatIsNoMessageOrOfTheOtherSideIsRefused)
{
  EXPECT_EQ(refusalOf("GET / HTTP/1.1\r\n"), "it is no GIOP message");
  EXPECT_EQ(refusalOf("GIOX"), "it is no GIOP message");
  EXPECT_EQ(refusalOf(headerOf(REQUEST, 4, false, 3)), "its GIOP version is not known");
  EXPECT_EQ(refusalOf(messageOf(REPLY, 1)), "its type is not for this side of a connection");
  EXPECT_EQ(refusalOf(messageOf(REQUEST, 1), MessageRules::REPLIES),
            "its type is not for this side of a connection");
  EXPECT_EQ(refusalOf(messageOf(static_cast<Kind>(8), 1)),
            "its type is not for this side of a connection");
}

TEST(MessageRulesTest, anObjectIsNamedByItsKeyAlone)
{
  std::string request = messageOf(REQUEST, 1);
  request[20] = 1; // by a profile
  EXPECT_EQ(refusalOf(request), "it does not name its object by a key");
  std::string locate = messageOf(LOCATE, 1);
  locate[16] = 2; // by a reference
  EXPECT_EQ(refusalOf(locate), "it does not name its object by a key");
}

TEST(GuardedInputTest, tellsWhatItHolds)
{
  std::string bytes = messageOf(CANCEL, 1, 0) + messageOf(REQUEST, 1, 104, true) +
                      messageOf(FRAGMENT, 1, 20) + messageOf(REQUEST, 2, 9000);
  std::size_t const whole = 16 + 120 + 36;
  GuardedInput input(MessageRules::REQUESTS);
  std::size_t at = 0;
  auto const read = [&](void* to, std::size_t room)
  {
    std::size_t const size = std::min({room, std::size_t(1), bytes.size() - at});
    std::memcpy(to, bytes.data() + at, size);
    at += size;
    return static_cast<int>(size);
  };
  EXPECT_EQ(input.holding(), GuardedInput::NOTHING);
  while (at < whole)
  {
    ASSERT_EQ(input.fill(read), 1);
    GuardedInput::Holding const expected = at == 16     ? GuardedInput::NOTHING
                                           : at < whole ? GuardedInput::PART
                                                        : GuardedInput::WHOLE;
    ASSERT_EQ(input.holding(), expected) << at;
  }
  auto const never = [](void*, std::size_t) { return -1; };
  char buffer[200];
  EXPECT_EQ(input.deliver(buffer, sizeof buffer, never), 120) << "one message at a time";
  EXPECT_TRUE(input.insideMessage());
  EXPECT_EQ(input.deliver(buffer, sizeof buffer, never), 36);
  EXPECT_FALSE(input.insideMessage());
  EXPECT_EQ(input.holding(), GuardedInput::NOTHING);
  while (at < bytes.size() && input.holding() != GuardedInput::LARGE)
    ASSERT_EQ(input.fill(read), 1);
  EXPECT_EQ(at, whole + GuardedInput::CAPACITY);
}
