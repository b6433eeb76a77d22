#include "discovery/ExplorerCall.h"

#include "discovery/DiscDBMem.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/orb/Corba.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <stdexcept>

using namespace tqtest;

namespace
{

constexpr char OPERATION[] = "ExplorerCallTest::call";

// Gives its name as the test says.
class NamelessPull : public FakePull
{
public:
  explicit NamelessPull(std::function<char const*()> name)
      : FakePull("hidden", nullptr, ""), m_name(std::move(name))
  {
  }
  char const* getExplorerName() const override { return m_name(); }
  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const*, CollectionData*) override
  {
    throw CORBA::NO_RESOURCES();
  }

private:
  std::function<char const*()> m_name;
};

char const* throwingName() { throw CORBA::NO_RESOURCES(); }
char const* noName() { return nullptr; }

struct ExplorerCallTest : testing::Test
{
  LogCapture log;

  template <class Thrown>
  bool survives(Explorer const& explorer, Thrown const& thrown)
  {
    return !callExplorer(explorer, "ExplorerCallTest", OPERATION, [&] { throw thrown; });
  }
};

} // namespace

TEST_F(ExplorerCallTest, WhateverIsThrownIsLoggedWithTheName)
{
  AutoDereference<FakePull> const explorer(new FakePull("odd"));
  EXPECT_TRUE(survives(*explorer, std::runtime_error("no disk")));
  EXPECT_TRUE(log.has(1, OPERATION, "Explorer odd threw an exception: no disk"));
  EXPECT_TRUE(survives(*explorer, 5));
  EXPECT_TRUE(log.has(1, OPERATION, "Explorer odd threw an exception: an exception of type int"));
  EXPECT_TRUE(survives(*explorer, CORBA::NO_RESOURCES()));
  EXPECT_TRUE(log.has(1, OPERATION,
                      "Explorer odd threw an exception: an exception of type CORBA::NO_RESOURCES"))
      << log.text();
}

// The name is asked for where the exception of the call is being handled.
TEST_F(ExplorerCallTest, AnExplorerThatCannotEvenGiveItsNameIsLoggedWithoutOne)
{
  for (auto const name : {&throwingName, &noName})
  {
    AutoDereference<NamelessPull> const explorer(new NamelessPull(name));
    EXPECT_TRUE(survives(*explorer, std::runtime_error("no disk")));
  }
  EXPECT_EQ(2, log.count(1, OPERATION, "Explorer (without a name) threw an exception: no disk"))
      << log.text();
}

TEST_F(ExplorerCallTest, ACollectionOfAnExplorerThatCannotGiveItsNameIsAFailure)
{
  for (auto const name : {&throwingName, &noName})
  {
    AutoDereference<NamelessPull> const explorer(new NamelessPull(name));
    AutoDereference<ExplorerWrapper> const entry(
        new ExplorerWrapper(explorer.get(), 1, new Subject("s"), new Authority("a", AT_TQUCLIENT)));
    MemCollectionData data(AutoDereference<ExplorerQuery>(new ExplorerQuery(entry)),
                           DQ_DISCOVERY_DATA);
    EXPECT_EQ(0, data.open(OM_READ, ""));
  }
  EXPECT_NE(std::string::npos, log.text().find("Explorer (without a name) failed: NO_RESOURCES"))
      << log.text();
}

// Whoever keeps the unwinding of a cancelled thread ends the process.
TEST_F(ExplorerCallTest, TheCancelOfAThreadGoesThroughTheCall)
{
  AutoDereference<FakePull> const explorer(new FakePull("odd"));
  pthread_t thread{};
  ASSERT_EQ(0, pthread_create(
                   &thread, nullptr,
                   [](void* argument) -> void*
                   {
                     auto const& called = *static_cast<FakePull*>(argument);
                     callExplorer(called, "ExplorerCallTest", OPERATION,
                                  []
                                  {
                                    pthread_cancel(pthread_self());
                                    pthread_testcancel();
                                  });
                     return nullptr;
                   },
                   explorer.get()));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(thread, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
}
