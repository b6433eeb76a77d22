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
  LOCATE_REPLY = 4,
  CLOSE = 5,
  FRAGMENT = 7
};

constexpr std::uint32_t ASKED = 2;

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

// For the version 1.2 with what belongs before the arguments when more is no
// less than HEADER: an empty key, operation and list of contexts.
constexpr std::size_t HEADER = 20;

std::string messageOf(Kind kind, std::uint32_t id, std::size_t more = HEADER,
                      bool fragments = false, char minor = 2)
{
  return headerOf(kind, static_cast<std::uint32_t>(4 + more), fragments, minor) + bytesOf(id) +
         std::string(more, '\0');
}

std::string padded(std::string const& text)
{
  return bytesOf(static_cast<std::uint32_t>(text.size())) + text +
         std::string((4 - text.size() % 4) % 4, '\0');
}

// A request of version 1.2 that has contexts and nothing behind them.
std::string requestWith(std::string const& key, std::string const& operation,
                        std::string const& contexts)
{
  std::string const body =
      bytesOf(7) + std::string("\3\0\0\0\0\0\0\0", 8) + padded(key) + padded(operation) + contexts;
  return headerOf(REQUEST, static_cast<std::uint32_t>(body.size())) + body;
}

// One of version 1.0 or 1.1.
std::string oldRequestWith(char minor, std::string const& contexts, std::string const& key,
                           std::string const& principal)
{
  std::string const body = contexts + bytesOf(7) + std::string("\1\0\0\0", 4) + padded(key) +
                           padded("_is_a") + principal;
  return headerOf(REQUEST, static_cast<std::uint32_t>(body.size()), false, minor) + body;
}

std::string const NO_CONTEXTS = bytesOf(0);

// What comes out of the messages at the end that the ORB has.
std::string deliveredFrom(std::string const& bytes, std::size_t step,
                          MessageRules::Direction direction, char const** reason = nullptr)
{
  GuardedInput input(direction);
  if (direction == MessageRules::REPLIES)
    input.expectAnswerTo(ASKED);
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
      messageOf(REQUEST, 1) + messageOf(REQUEST, 2, 24, true) + messageOf(FRAGMENT, 2, 8, true) +
      messageOf(FRAGMENT, 2, 3) + messageOf(LOCATE, 3) + messageOf(REQUEST, 2, 4000) +
      messageOf(REQUEST, 1, 60, false, 0) + messageOf(REQUEST, 1, 20000) + headerOf(CLOSE, 0);
  for (std::size_t const step : {std::size_t(1), std::size_t(7), std::size_t(1000), bytes.size()})
    EXPECT_EQ(deliveredFrom(bytes, step, MessageRules::REQUESTS), bytes) << step;
}

TEST(MessageRulesTest, repliesPassAsTheyCame)
{
  std::string const bytes = messageOf(REPLY, 2) + messageOf(REPLY, 2, 8, true) +
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
  std::string const begun = messageOf(REQUEST, 7, 24, true);
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
  EXPECT_EQ(refusalOf(messageOf(REQUEST, 7, 25, true)), "it is fragmented at an odd place");
}

TEST(MessageRulesTest, fragmentsKeepTheOrderOfBytes)
{
  std::string other = std::string("GIOP\1\2\0\7\0\0\0\4\0\0\0\7", 16); // big endian
  EXPECT_EQ(refusalOf(messageOf(REQUEST, 7, 24, true) + other),
            "it is a fragment in another order of bytes");
}

TEST(MessageRulesTest, whatPrecedesTheArgumentsIsWholeAndNotLong)
{
  std::string const context = bytesOf(1) + bytesOf(5) + padded("abc");
  for (std::string const& good :
       {requestWith("key", "op", context), requestWith("", "", NO_CONTEXTS),
        requestWith(std::string(3000, 'k'), "op", context),
        oldRequestWith(0, context, "key", padded("me")),
        oldRequestWith(1, NO_CONTEXTS, "key", NO_CONTEXTS)})
    EXPECT_EQ(refusalOf(good), "");
  // Numbers that nothing is behind.
  for (std::uint32_t const many : {2U, 500U, 4000000U, 0xffffffffU})
  {
    EXPECT_EQ(refusalOf(requestWith("key", "op", bytesOf(many))), "it is too short") << many;
    EXPECT_EQ(refusalOf(oldRequestWith(1, NO_CONTEXTS, "key", bytesOf(many))), "it is too short");
  }
  EXPECT_EQ(refusalOf(requestWith("key", "op", bytesOf(1) + bytesOf(5) + bytesOf(0xfffffffe))),
            "it is too short");
  for (std::size_t const at : {24U, 32U}) // of the key, and of the operation
  {
    std::string request = requestWith("key", "op", NO_CONTEXTS);
    request.replace(at, 4, bytesOf(0xfffffff0));
    EXPECT_EQ(refusalOf(request), "it is too short") << at;
  }
  std::string oldCount = oldRequestWith(0, NO_CONTEXTS, "key", NO_CONTEXTS);
  oldCount.replace(12, 4, bytesOf(3000000));
  EXPECT_EQ(refusalOf(oldCount), "it is too short");
  // In fragments it is in the first one.
  std::string const whole = requestWith("keykey", "op", bytesOf(3000000));
  std::string const first =
      headerOf(REQUEST, static_cast<std::uint32_t>(whole.size() - 12), true) + whole.substr(12);
  EXPECT_EQ(refusalOf(first + messageOf(FRAGMENT, 7, 60)), "it is too short");
  for (auto const& large :
       {requestWith(std::string(5000, 'k'), "op", NO_CONTEXTS),
        requestWith("key", std::string(5000, 'o'), NO_CONTEXTS),
        requestWith("key", "op", bytesOf(1) + bytesOf(5) + padded(std::string(5000, 'c'))),
        oldRequestWith(0, NO_CONTEXTS, std::string(5000, 'k'), NO_CONTEXTS)})
    EXPECT_EQ(refusalOf(large), "its header is too long");
}

TEST(MessageRulesTest, aHeaderOfJustTheGreatestLengthPasses)
{
  auto const requestOf = [](std::size_t context)
  {
    return requestWith(std::string(3000, 'k'), "op",
                       bytesOf(1) + bytesOf(5) + padded(std::string(context, 'c')));
  };
  std::size_t const longest = MessageRules::LONGEST_HEADER - requestOf(0).size();
  ASSERT_EQ(requestOf(longest).size(), MessageRules::LONGEST_HEADER);
  EXPECT_EQ(refusalOf(requestOf(longest)), "");
  EXPECT_EQ(refusalOf(requestOf(longest + 1)), "its header is too long");
}

TEST(MessageRulesTest, onlyTheAnswerThatWasAskedForPasses)
{
  for (char const minor : {0, 1, 2})
  {
    // The old versions have contexts before the number.
    std::string const before = minor == 2 ? "" : bytesOf(1) + bytesOf(5) + padded("abcde");
    for (std::uint32_t const id : {ASKED, ASKED + 1, 0U})
    {
      std::string const body = before + bytesOf(id) + bytesOf(0) + bytesOf(0);
      std::string const reply =
          headerOf(REPLY, static_cast<std::uint32_t>(body.size()), false, minor) + body;
      EXPECT_EQ(refusalOf(reply, MessageRules::REPLIES), id == ASKED ? "" : "it answers no request")
          << int(minor) << " " << id;
    }
    EXPECT_EQ(refusalOf(messageOf(LOCATE_REPLY, 3, 4, false, minor), MessageRules::REPLIES),
              "it answers no request");
  }
  GuardedInput unasked(MessageRules::REPLIES);
  std::string const reply = messageOf(REPLY, 0);
  auto const read = [&](void* to, std::size_t)
  { return static_cast<int>(reply.copy(static_cast<char*>(to), reply.size())); };
  char buffer[100];
  EXPECT_LT(unasked.deliver(buffer, sizeof buffer, read), 0);
  EXPECT_STREQ(unasked.reason(), "it answers no request");
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
