// The threads that shake hands, whatever goes wrong with one peer, and the lines
// about peers.

#include "ozf/tls/RareLines.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/ozf_tls/HandshakesTesting.h"

#include <new>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using HandshakeThreadsTest = HandshakesTesting;

} // namespace

TEST_F(HandshakeThreadsTest, goOnWhenThereIsNoMemoryForALine)
{
  LoggerFactory::setObserver([](LogLine const&) { throw std::bad_alloc(); });
  {
    Handshakes handshakes([] {}, {.time = std::chrono::milliseconds(50)});
    for (char const* const address : {"192.0.2.1", "192.0.2.2"})
      EXPECT_TRUE(isGone(begin(handshakes, address))) << address;
    UniqueFd const plain = begin(handshakes, "192.0.2.3");
    ASSERT_EQ(send(plain.get(), "GIOP", 4, MSG_NOSIGNAL), 4);
    EXPECT_TRUE(isGone(plain));
  }
  LoggerFactory::setObserver({});
}

TEST_F(HandshakeThreadsTest, theOldestOfTheAddressWithMostMakesRoom)
{
  LogCapture const log(1);
  Handshakes handshakes([] {}, {.all = 4, .ofAddress = 3, .time = std::chrono::seconds(60)});
  UniqueFd const other = begin(handshakes, "192.0.2.1");
  UniqueFd const oldest = begin(handshakes, "192.0.2.2");
  UniqueFd const second = begin(handshakes, "192.0.2.2");
  UniqueFd const third = begin(handshakes, "192.0.2.2");
  EXPECT_FALSE(isGone(oldest, 0));
  UniqueFd const newcomer = begin(handshakes, "192.0.2.3");
  EXPECT_TRUE(isGone(oldest));
  UniqueFd const fourth = begin(handshakes, "192.0.2.2");
  EXPECT_TRUE(isGone(second));
  for (UniqueFd const* const peer : {&other, &third, &newcomer, &fourth})
    EXPECT_FALSE(isGone(*peer, 0));
  EXPECT_TRUE(log.has(1, "Handshakes::work",
                      "Ended a connection from 192.0.2.2 before any call: too many others have "
                      "not proven who they are either"))
      << log.text();
}

TEST(RareLinesTest, onePeerWithANewLineEachTimeKeepsTheOthersLinesIn)
{
  RareLines lines(std::chrono::hours(1), 16);
  std::size_t admitted = 0;
  for (int i = 0; i < 100; ++i)
    admitted += lines.admits("192.0.2.1", "name " + std::to_string(i)) ? 1 : 0;
  EXPECT_EQ(admitted, RareLines::LINES_OF_PEER);
  EXPECT_TRUE(lines.admits("192.0.2.2", "it shows no certificate"));
  EXPECT_FALSE(lines.admits("192.0.2.2", "it shows no certificate"));
  for (int i = 0; i < 100; ++i)
    admitted += lines.admits("192.0.2." + std::to_string(100 + i), "any") ? 1 : 0;
  EXPECT_EQ(admitted, 15U) << "and one, of all";
}
