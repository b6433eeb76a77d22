// More peers at once than the threads that shake hands can serve at once.

#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/unit/ozf_tls/HandshakesTesting.h"

#include <semaphore>
#include <thread>
#include <vector>

namespace
{

constexpr std::chrono::seconds MINUTE(60);

class HandshakeCrowdTest : public HandshakesTesting
{
protected:
  // Of two that have begun and stall, for a third.
  void expectThatOneOfTwoMakesRoom(HandshakeLimits const& limits)
  {
    std::string const said = hello();
    Handshakes handshakes([] {}, limits);
    UniqueFd const first = begin(handshakes, "192.0.2.1", said);
    ASSERT_TRUE(isAnswered(first));
    UniqueFd const second = begin(handshakes, "192.0.2.2", said);
    ASSERT_TRUE(isAnswered(second));
    // Whose answer has been read may still be worked on, and makes no room then.
    UniqueFd third;
    EXPECT_TRUE(eventually(
        [&]
        {
          third = begin(handshakes, "192.0.2.3", said);
          return isAnswered(third);
        }));
    EXPECT_NE(isGone(first, 0), isGone(second, 0));
  }
};

// All threads are held until they are let go.
class HandshakeQueueTest : public HandshakesTesting
{
protected:
  HandshakeQueueTest() : HandshakesTesting(TlsMode::BOTH) {}

  void holdThreads(Handshakes& handshakes)
  {
    for (unsigned i = 0; i < threads(); ++i)
    {
      begin(handshakes, "192.0.2.200", "GIOP");
      m_held.acquire();
    }
  }
  void letGo()
  {
    m_isHeld = false;
    m_free.release(threads());
  }

  std::function<void()> tell()
  {
    return [this]
    {
      if (!m_isHeld)
        return;
      m_held.release();
      m_free.acquire();
    };
  }

private:
  static unsigned threads()
  {
    return std::clamp(std::thread::hardware_concurrency(), 1U, Handshakes::MOST_THREADS);
  }

  std::atomic<bool> m_isHeld{true};
  std::counting_semaphore<> m_held{0};
  std::counting_semaphore<> m_free{0};
};

} // namespace

TEST_F(HandshakeCrowdTest, whoHasBegunIsNotEndedForANewcomer)
{
  std::string const said = hello();
  Handshakes handshakes([] {}, {.all = 2, .time = MINUTE, .patience = MINUTE});
  UniqueFd const first = begin(handshakes, "192.0.2.1", said);
  UniqueFd const second = begin(handshakes, "192.0.2.2", said);
  ASSERT_TRUE(isAnswered(first));
  ASSERT_TRUE(isAnswered(second));
  EXPECT_TRUE(isGone(begin(handshakes, "192.0.2.3", said)));
  EXPECT_FALSE(isGone(first, 0));
  EXPECT_FALSE(isGone(second, 0));
}

TEST_F(HandshakeCrowdTest, whoHasBegunAndStallsIsEndedForANewcomer)
{
  expectThatOneOfTwoMakesRoom({.all = 2, .time = MINUTE, .patience = std::chrono::milliseconds(0)});
}

TEST_F(HandshakeCrowdTest, ofThoseThatHaveBegunOneThatStallsMakesRoomForTheNext)
{
  expectThatOneOfTwoMakesRoom(
      {.begun = 2, .time = MINUTE, .patience = std::chrono::milliseconds(1)});
}

TEST_F(HandshakeCrowdTest, ofAnAddressThatHasSeveralOneMakesRoomForThatOfAnother)
{
  std::string const said = hello();
  Handshakes handshakes([] {}, {.begun = 2, .time = MINUTE, .patience = MINUTE});
  UniqueFd const first = begin(handshakes, "192.0.2.1", said);
  ASSERT_TRUE(isAnswered(first));
  UniqueFd const second = begin(handshakes, "192.0.2.1", said);
  ASSERT_TRUE(isAnswered(second));
  UniqueFd const next = begin(handshakes, "192.0.2.1", said);
  UniqueFd const other = begin(handshakes, "192.0.2.2", said);
  EXPECT_TRUE(isAnswered(other));
  EXPECT_NE(isGone(first, 0), isGone(second, 0));
}

TEST_F(HandshakeCrowdTest, asManyAsMayHaveBegunAreWaitedForBeforeTheNextBegins)
{
  std::string const said = hello();
  Handshakes handshakes([] {}, {.begun = 1, .time = MINUTE, .patience = MINUTE});
  UniqueFd first = begin(handshakes, "192.0.2.1", said);
  ASSERT_TRUE(isAnswered(first));
  UniqueFd const second = begin(handshakes, "192.0.2.2", said);
  first.reset();
  EXPECT_TRUE(isAnswered(second));
}

TEST_F(HandshakeQueueTest, whoHasSpokenHasATurnAlthoughHisTimeIsOverMeanwhile)
{
  constexpr std::chrono::milliseconds TIME(10);
  std::string const said = hello();
  Handshakes handshakes(tell(), {.time = TIME});
  holdThreads(handshakes);
  std::vector<UniqueFd> peers;
  for (int i = 0; i < 20; ++i)
    peers.push_back(begin(handshakes, "192.0.2.1", said));
  std::this_thread::sleep_for(2 * TIME);
  letGo();
  int answered = 0;
  for (UniqueFd const& peer : peers)
    answered += isAnswered(peer);
  EXPECT_EQ(answered, 20);
}

TEST_F(HandshakeQueueTest, anAddressWithSeveralLosesOneForThatOfAnotherAndNoFurtherOne)
{
  std::string const said = hello();
  Handshakes handshakes(tell(), {.all = 3, .time = MINUTE, .patience = MINUTE});
  holdThreads(handshakes);
  UniqueFd const first = begin(handshakes, "192.0.2.1", said);
  UniqueFd const second = begin(handshakes, "192.0.2.1", said);
  UniqueFd const other = begin(handshakes, "192.0.2.2", said);
  UniqueFd const newcomer = begin(handshakes, "192.0.2.3", said);
  EXPECT_TRUE(isGone(first));
  EXPECT_TRUE(isGone(begin(handshakes, "192.0.2.4", said))); // all have one
  letGo();
  for (UniqueFd const* const peer : {&second, &other, &newcomer})
    EXPECT_TRUE(isAnswered(*peer));
}

TEST_F(HandshakeQueueTest, whoSaysNothingMakesRoomAndNobodyWhoseTurnHasNotCome)
{
  std::string const said = hello();
  Handshakes handshakes(tell(),
                        {.all = 2, .time = MINUTE, .patience = std::chrono::milliseconds(0)});
  holdThreads(handshakes);
  UniqueFd const speaker = begin(handshakes, "192.0.2.1", said);
  UniqueFd const silent = begin(handshakes, "192.0.2.2");
  UniqueFd const newcomer = begin(handshakes, "192.0.2.3", said);
  EXPECT_TRUE(isGone(silent));
  letGo();
  EXPECT_TRUE(isAnswered(speaker));
  EXPECT_TRUE(isAnswered(newcomer));
}

TEST_F(HandshakeCrowdTest, whoHasNotSaidAnythingYetIsNotEndedForANewcomerAtOnce)
{
  Handshakes handshakes([] {}, {.all = 2, .time = MINUTE, .patience = MINUTE});
  UniqueFd const first = begin(handshakes, "192.0.2.1");
  UniqueFd const second = begin(handshakes, "192.0.2.2");
  EXPECT_TRUE(isGone(begin(handshakes, "192.0.2.3")));
  EXPECT_FALSE(isGone(first, 0));
  EXPECT_FALSE(isGone(second, 0));
}

TEST_F(HandshakeQueueTest, nothingIsDoneForWhoHasGoneMeanwhile)
{
  std::string const said = hello();
  LogCapture const log(1);
  Handshakes handshakes(tell());
  holdThreads(handshakes);
  begin(handshakes, "192.0.2.1", said);
  UniqueFd const next = begin(handshakes, "192.0.2.2", said);
  letGo();
  EXPECT_TRUE(isAnswered(next));
  // Its answer would have met nobody.
  EXPECT_EQ(log.text().find("192.0.2.1"), std::string::npos) << log.text();
}
