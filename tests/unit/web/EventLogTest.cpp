// What is remembered of events, and the pace of lists.

#include "web/EventLog.h"
#include "web/ListPolling.h"

#include <gmock/gmock.h>

using namespace Web;
using testing::HasSubstr;
using testing::StartsWith;

TEST(EventLogTest, AStreamGoesOnBehindItsLastEvent)
{
  EventLog log("e1");
  log.add("added", "1");
  log.add("changed", "2");
  log.add("gone", "3");
  std::string const first = "e1-1";
  auto position = log.begin(&first);
  EXPECT_EQ(*log.next(position), "id: e1-2\nevent: changed\ndata: 2\n\n");
  EXPECT_EQ(*log.next(position), "id: e1-3\nevent: gone\ndata: 3\n\n");
  EXPECT_EQ(log.next(position), nullptr);
  EXPECT_FALSE(log.has(position));
  log.add("added", "4");
  EXPECT_EQ(*log.next(position), "id: e1-4\nevent: added\ndata: 4\n\n");
}

TEST(EventLogTest, WhoComesWithoutAnIdHearsOfWhatComes)
{
  EventLog log("e1");
  log.add("added", "1");
  auto position = log.begin(nullptr);
  EXPECT_EQ(log.next(position), nullptr);
  log.add("added", "2");
  EXPECT_THAT(*log.next(position), HasSubstr("data: 2"));
}

TEST(EventLogTest, WhoHasHeardAllMissesNothingAndOnlyThat)
{
  EventLog log("e1");
  for (std::size_t i = 0; i < EventLog::MOST_EVENTS + 2; ++i)
    log.add("added", "1");
  std::string const lastForgotten = "e1-2";
  auto position = log.begin(&lastForgotten);
  EXPECT_THAT(*log.next(position), StartsWith("id: e1-3\nevent: added"));
  std::size_t const count = EventLog::MOST_EVENTS + 2;
  std::string const last = "e1-" + std::to_string(count);
  position = log.begin(&last);
  EXPECT_EQ(log.next(position), nullptr);
  std::string const next = "e1-" + std::to_string(count + 1);
  position = log.begin(&next);
  auto const reset = log.next(position);
  ASSERT_NE(reset, nullptr) << "nobody has heard that yet";
  EXPECT_THAT(*reset, HasSubstr("event: reset\n"));
}

TEST(EventLogTest, WhatIsForgottenIsAReset)
{
  EventLog log("e1");
  for (std::size_t i = 0; i < EventLog::MOST_EVENTS + 2; ++i)
    log.add("added", "1");
  for (std::string const id :
       {"e1-1", "e0-5", "x", "", "e1-", "e1-99999999", "e1-5x", "e1-99999999999999999999999"})
  {
    auto position = log.begin(&id);
    EXPECT_THAT(*log.next(position), HasSubstr("event: reset\n")) << id;
    EXPECT_EQ(log.next(position), nullptr) << id;
  }
  std::string const known = "e1-3";
  auto position = log.begin(&known);
  EXPECT_THAT(*log.next(position), StartsWith("id: e1-4\nevent: added"));
}

TEST(EventLogTest, MemoryForEventsIsBounded)
{
  EventLog log("e1");
  std::string const large(EventLog::MOST_BYTES / 4, 'x');
  for (int i = 0; i < 8; ++i)
    log.add("added", large);
  std::string const first = "e1-1";
  auto position = log.begin(&first);
  EXPECT_THAT(*log.next(position), HasSubstr("event: reset"));
}

TEST(EventLogTest, WhoeverReadsMeetsAReset)
{
  EventLog log("e1");
  log.add("added", "1");
  auto reading = log.begin(nullptr);
  log.reset();
  EXPECT_THAT(*log.next(reading), HasSubstr("event: reset"));
  EXPECT_EQ(log.next(reading), nullptr);
  log.add("added", "2");
  EXPECT_THAT(*log.next(reading), HasSubstr("data: 2"));
}

TEST(ListPollingTest, AListTakesNoMoreThanItsShare)
{
  ListPolling::Pace const pace{5, 0.01};
  EXPECT_DOUBLE_EQ(ListPolling::pause(pace, 0.001), 5);
  EXPECT_DOUBLE_EQ(ListPolling::pause(pace, 1), 99);
  for (double const taken : {0.06, 0.5, 10.0})
    EXPECT_LE(taken / (taken + ListPolling::pause(pace, taken)), 0.0100001);
}
