// What a peer sends over a connection. The first byte of an input says which side
// reads it, whether much comes behind and how the bytes arrive, the second the request
// that is waited for; the rest is what is sent. However the bytes come and whoever looks at them in
// between, the same of them reach the ORB, and nothing that it relies on is wrong in them.

#include "tests/fuzz/Fuzz.h"

#include "ozf/orb/GuardedInput.h"
#include "tests/support/GiopMutation.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace
{

using namespace fuzz;
namespace giop = tqtest::giop;

constexpr std::size_t CHOICES = 2; // bytes before the messages
constexpr std::uint8_t AS_A_CLIENT = 1;
constexpr std::uint8_t MUCH_BEHIND = 2; // so that a message need not fit into the input

struct Passed
{
  std::string bytes;                 // what the ORB gets
  std::vector<std::string> messages; // the whole ones among them
  std::string reason;                // why the rest is refused; empty when it is not
};

// Beyond what judge looks at it may as well not be there.
MessageRules::Judgement judged(MessageRules& rules, std::string_view rest)
{
  std::string const looked(rest.substr(0, MessageRules::LONGEST_HEADER));
  return rules.judge(looked.data(), looked.size());
}

// A part is judged as the whole, or more of it is wanted than there is.
void checkPart(MessageRules const& rules, std::string_view rest, std::size_t size)
{
  MessageRules whole = rules;
  MessageRules part = rules;
  auto const expected = judged(whole, rest);
  auto const found = judged(part, rest.substr(0, size));
  if (found.verdict == MessageRules::MORE)
  {
    require(found.size > size && found.size <= MessageRules::LONGEST_HEADER,
            "what is wanted is more than there is, and not too much");
    require(part.expectsFragment() == rules.expectsFragment(),
            "what is not judged changes nothing");
  }
  else
    require(found.verdict == expected.verdict && found.size == expected.size &&
                (found.reason == nullptr ||
                 std::strcmp(found.reason, expected.reason == nullptr ? "" : expected.reason) == 0),
            "a part is judged as the whole");
}

Passed passedOf(MessageRules rules, std::string_view sent, std::mt19937& random)
{
  Passed passed;
  while (!sent.empty())
  {
    checkPart(rules, sent, random() % (std::min<std::size_t>(sent.size(), 80) + 1));
    auto const judgement = judged(rules, sent);
    if (judgement.verdict == MessageRules::MORE)
      return passed;
    if (judgement.verdict == MessageRules::REFUSED)
    {
      require(judgement.reason != nullptr && *judgement.reason != '\0', "a refusal has a reason");
      passed.reason = judgement.reason;
      return passed;
    }
    require(judgement.size >= giop::HEADER, "a message has a header");
    std::size_t const here = std::min(judgement.size, sent.size());
    if (judgement.verdict == MessageRules::PASS)
    {
      passed.bytes += sent.substr(0, here);
      if (here == judgement.size)
        passed.messages.emplace_back(sent.substr(0, here));
    }
    sent.remove_prefix(here);
  }
  return passed;
}

// The ORB's own view of a connection, at its most trusting.
void checkWhatTheOrbReliesOn(std::vector<std::string> const& messages, bool requests,
                             std::uint32_t asked)
{
  std::optional<std::uint32_t> open; // the number of the message in fragments
  bool inFragments = false;
  for (std::string const& message : messages)
  {
    bool const little = giop::isLittle(message);
    unsigned const type = static_cast<unsigned char>(message[7]);
    int const minor = message[5];
    bool const more = minor > 0 && (message[6] & 2) != 0;
    require(message.compare(0, 5, "GIOP\1") == 0 && minor <= 2, "a message of a known version");
    require(giop::numberAt(message, 8, little) + giop::HEADER == message.size(),
            "a message has the size that it says");
    require((type == giop::FRAGMENT) == inFragments, "fragments follow their message alone");
    require(type != giop::CANCEL_REQUEST, "no request is cancelled");
    if (type == giop::REPLY || type == giop::LOCATE_REPLY)
      require(!requests, "a server gets no answers");
    if (type == giop::REQUEST || type == giop::LOCATE_REQUEST)
      require(requests, "a client gets no requests");
    if (minor == 2 && type != giop::CLOSE_CONNECTION && type != giop::MESSAGE_ERROR)
    {
      std::uint32_t const id = giop::numberAt(message, giop::HEADER, little);
      require(!inFragments || id == open, "a fragment is that of the message before it");
      require(type != giop::REPLY || id == asked, "an answer is that of the request");
      require(!more || message.size() % 8 == 0, "a message is broken at a multiple of eight");
      open = id;
    }
    if (minor < 2 && (type == giop::REQUEST || type == giop::REPLY))
      require(giop::numberAt(message, giop::HEADER, little) <= message.size() / 8,
              "there is room for the contexts that a message says it has");
    inFragments = more;
  }
}

class Peer
{
public:
  Peer(std::string_view sent, std::mt19937& random) : m_sent(sent), m_random(random) {}

  int read(void* data, std::size_t size)
  {
    require(size != 0, "there is room for what is read");
    if (m_sent.empty())
      return -1;
    if (m_random() % 8 == 0)
      return 0;
    std::size_t const given = std::min({m_sent.size(), size, std::size_t{1} + m_random() % m_most});
    std::memcpy(data, m_sent.data(), given);
    m_sent.remove_prefix(given);
    return static_cast<int>(given);
  }

private:
  std::string_view m_sent;
  std::mt19937& m_random;
  std::size_t const m_most = m_random() % 2 == 0 ? 16 : 9000;
};

// As the ORB's threads and the one that waits for requests use it.
Passed deliveredOf(GuardedInput& input, std::string_view sent, std::mt19937& random)
{
  Passed passed;
  Peer peer(sent, random);
  GuardedInput::Read const read = [&](void* data, std::size_t size)
  { return peer.read(data, size); };
  std::vector<char> room(1 + random() % 9000);
  for (int idle = 0; idle < 1000; ++idle)
  {
    if (!input.insideMessage() && random() % 2 == 0)
    {
      auto const holding = input.holding();
      if ((holding == GuardedInput::NOTHING || holding == GuardedInput::PART) &&
          input.fill(read) < 0)
        input.holding();
      input.shrink();
    }
    int const got = input.deliver(room.data(), room.size(), read);
    if (got < 0)
      break;
    require(static_cast<std::size_t>(got) <= room.size(), "no more is given than there is room");
    passed.bytes.append(room.data(), static_cast<std::size_t>(got));
    if (got > 0)
      idle = 0;
  }
  if (input.reason() != nullptr)
    passed.reason = input.reason();
  return passed;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  return 0;
}

// Whole messages, as a peer that knows what they are would change them.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed)
{
  giop::Mutator mutator(seed);
  if (size < CHOICES + giop::HEADER || mutator.once(5))
    return LLVMFuzzerMutate(data, size, most);
  std::string rest(reinterpret_cast<char const*>(data) + CHOICES, size - CHOICES);
  giop::Mutator::Messages messages;
  while (auto message = giop::takeMessage(rest))
    messages.push_back(*message);
  if (messages.empty())
    return LLVMFuzzerMutate(data, size, most);
  auto const count = static_cast<std::uint32_t>(messages.size());
  std::uint32_t const which = mutator.below(count);
  if (mutator.once(8))
    std::swap(messages[which], messages[mutator.below(count)]);
  std::string changed(reinterpret_cast<char const*>(data), CHOICES);
  for (std::uint32_t i = 0; i < count; ++i)
    if (i != which)
      changed += messages[i];
    else
      for (std::string const& message : mutator.mutate(messages[i]))
        changed += message;
  changed += rest;
  if (changed.size() > most)
    changed.resize(most);
  std::memcpy(data, changed.data(), changed.size());
  return changed.size();
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  if (size < CHOICES)
    return 0;
  bool const requests = (data[0] & AS_A_CLIENT) == 0;
  std::uint32_t const asked = data[1];
  std::string sent(textOf(data + CHOICES, size - CHOICES));
  if ((data[0] & MUCH_BEHIND) != 0)
    sent.append(2 * GuardedInput::CAPACITY, '\0');
  auto const direction = requests ? MessageRules::REQUESTS : MessageRules::REPLIES;
  std::mt19937 random(data[0] + choiceOf(sent));

  MessageRules rules(direction);
  GuardedInput input(direction);
  if (!requests)
  {
    rules.expectAnswerTo(asked);
    input.expectAnswerTo(asked);
  }
  Passed const expected = passedOf(rules, sent, random);
  checkWhatTheOrbReliesOn(expected.messages, requests, asked);
  Passed const delivered = deliveredOf(input, sent, random);
  requireEqual(expected.bytes, delivered.bytes, "the same bytes reach the ORB however they come");
  requireEqual(expected.reason, delivered.reason, "the same is refused however it comes");
  return 0;
}
