#include "ozf/plugin/EngineContext.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;

namespace
{

std::vector<std::string> events;

struct Plain
{
  static Plain* instance(EngineContext const&)
  {
    events.push_back("make plain");
    return new Plain;
  }
  ~Plain() { events.push_back("delete plain"); }
};

class Told : public EngineSingleton
{
public:
  static Told* instance(EngineContext const&) { return new Told; }
  ~Told() override { events.push_back("delete told"); }
  void closeObject() override
  {
    events.push_back("close told");
    EngineSingleton::closeObject();
  }
};

// Asks for another one while it is made, and keeps the context.
struct Nested
{
  static Nested* instance(EngineContext const& context) { return new Nested(context); }
  explicit Nested(EngineContext const& context)
      : m_context(&context), m_plain(getEngineSingleton<Plain>(context))
  {
    events.push_back("make nested");
  }
  ~Nested()
  {
    EXPECT_EQ(getEngineSingleton<Plain>(*m_context), m_plain) << "what it was made on is gone";
    events.push_back("delete nested");
  }
  EngineContext const* m_context;
  Plain* m_plain;
};

struct Cyclic
{
  static Cyclic* instance(EngineContext const& context)
  {
    getEngineSingleton<Cyclic>(context);
    return new Cyclic;
  }
};

struct Failing
{
  static inline bool fail = true;
  static Failing* instance(EngineContext const&)
  {
    if (fail)
      throw std::runtime_error("cannot be made");
    return new Failing;
  }
};

struct Absent
{
  static inline int asked = 0;
  static Absent* instance(EngineContext const&)
  {
    ++asked;
    return nullptr;
  }
};

class EngineContextTest : public testing::Test
{
protected:
  EngineContextTest() { events.clear(); }
  ~EngineContextTest() override { EngineContext::closeProcessEngine(); }
};

TEST_F(EngineContextTest, AnEngineHasOneOfAType)
{
  auto const context = EngineContext::isolated();
  auto const copy = context;
  EXPECT_EQ(getEngineSingleton<Plain>(context), getEngineSingleton<Plain>(copy));
  EXPECT_THAT(events, ElementsAre("make plain"));
}

TEST_F(EngineContextTest, EnginesShareNothing)
{
  auto const one = EngineContext::isolated();
  auto const two = EngineContext::isolated();
  EXPECT_NE(getEngineSingleton<Plain>(one), getEngineSingleton<Plain>(two));
  EXPECT_NE(getEngineSingleton<Plain>(one), getEngineSingleton<Plain>(EngineContext()));
}

TEST_F(EngineContextTest, EveryPlainHandleIsOnTheProcessesEngine)
{
  auto* const first = getEngineSingleton<Plain>(EngineContext());
  EXPECT_EQ(getEngineSingleton<Plain>(EngineContext()), first);
  EXPECT_THAT(events, ElementsAre("make plain"));
}

TEST_F(EngineContextTest, TheLastHandleClosesInReverseOrderOfMaking)
{
  {
    auto context = std::make_unique<EngineContext>(EngineContext::isolated());
    auto const other = *context;
    getEngineSingleton<Told>(*context);
    getEngineSingleton<Nested>(*context);
    context.reset();
    EXPECT_THAT(events, ElementsAre("make plain", "make nested"));
    events.clear();
  }
  EXPECT_THAT(events, ElementsAre("delete nested", "delete plain", "close told", "delete told"));
}

TEST_F(EngineContextTest, AClosedProcessEngineIsFollowedByAnother)
{
  EngineContext const kept;
  getEngineSingleton<Plain>(kept);
  EngineContext::closeProcessEngine();
  EXPECT_THAT(events, ElementsAre("make plain", "delete plain"));
  getEngineSingleton<Plain>(EngineContext());
  EXPECT_THAT(events, ElementsAre("make plain", "delete plain", "make plain"));
  EngineContext::closeProcessEngine();
  EngineContext::closeProcessEngine();
  EXPECT_THAT(events, ElementsAre("make plain", "delete plain", "make plain", "delete plain"));
}

TEST_F(EngineContextTest, WhatIsAskedForWhileItIsMadeIsAFailedAssertion)
{
  auto const context = EngineContext::isolated();
  LogCapture const quiet;
  EXPECT_THROW(getEngineSingleton<Cyclic>(context), AssertionFailure);
  EXPECT_NE(getEngineSingleton<Plain>(context), nullptr);
}

TEST_F(EngineContextTest, AMakerThatThrowsIsCalledAgainTheNextTime)
{
  auto const context = EngineContext::isolated();
  Failing::fail = true;
  EXPECT_THROW(getEngineSingleton<Failing>(context), std::runtime_error);
  Failing::fail = false;
  EXPECT_NE(getEngineSingleton<Failing>(context), nullptr);
}

TEST_F(EngineContextTest, AMakerThatMakesNothingIsCalledAgainTheNextTime)
{
  auto const context = EngineContext::isolated();
  Absent::asked = 0;
  EXPECT_EQ(getEngineSingleton<Absent>(context), nullptr);
  EXPECT_EQ(getEngineSingleton<Absent>(context), nullptr);
  EXPECT_EQ(Absent::asked, 2);
}

class ThrowsAtEnd : public EngineSingleton
{
public:
  static ThrowsAtEnd* instance(EngineContext const&) { return new ThrowsAtEnd; }
  void closeObject() override
  {
    EngineSingleton::closeObject();
    throw std::runtime_error("cannot be closed");
  }
};

TEST_F(EngineContextTest, ASingletonThatThrowsWhileClosingIsLoggedAndTheOthersAreClosed)
{
  LogCapture const log;
  {
    auto const context = EngineContext::isolated();
    getEngineSingleton<Plain>(context);
    getEngineSingleton<ThrowsAtEnd>(context);
  }
  EXPECT_THAT(events, ElementsAre("make plain", "delete plain"));
  EXPECT_TRUE(
      log.has(1, "Engine::close", "Caught exception while closing a singleton, cannot be closed"))
      << log.text();
}

class AsksAtEnd : public EngineSingleton
{
public:
  static AsksAtEnd* instance(EngineContext const& context) { return new AsksAtEnd(context); }
  explicit AsksAtEnd(EngineContext const& context) : m_context(&context) {}
  void closeObject() override
  {
    std::unique_ptr<AsksAtEnd> const self(this);
    EXPECT_THROW(getEngineSingleton<Plain>(*m_context), AssertionFailure);
  }

private:
  EngineContext const* m_context;
};

TEST_F(EngineContextTest, NothingNewIsMadeWhileAnEngineCloses)
{
  LogCapture const quiet;
  {
    auto const context = EngineContext::isolated();
    getEngineSingleton<AsksAtEnd>(context);
  }
  EXPECT_THAT(events, ElementsAre());
}

struct Slow
{
  static inline std::atomic<int> made = 0;
  static Slow* instance(EngineContext const&)
  {
    ++made;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return new Slow;
  }
};

TEST_F(EngineContextTest, ThreadsThatAskAtOnceGetOneObject)
{
  Slow::made = 0;
  auto const context = EngineContext::isolated();
  constexpr int THREADS = 8;
  std::barrier start(THREADS);
  std::vector<Slow*> seen(THREADS);
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i)
    threads.emplace_back(
        [&, i]
        {
          start.arrive_and_wait();
          seen[static_cast<std::size_t>(i)] = getEngineSingleton<Slow>(context);
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(Slow::made, 1);
  EXPECT_THAT(seen, testing::Each(seen.front()));
}

} // namespace
