#include "discovery/OperationNeeds.h"

#include "tests/support/IdlOperations.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using DiscoverySvc::needOf;

namespace
{

std::set<std::string> const& operations()
{
  static auto const all = tqtest::operationsOfIdl(TQ_SOURCE_DIR "/idl/DiscoveryService.idl");
  return all;
}

unsigned rightsFor(std::string const& operation)
{
  CallNeed const* const need = needOf(operation);
  return need == nullptr ? 0 : need->rights;
}

} // namespace

TEST(OperationNeeds, everyOperationOfTheInterfacesHasOne)
{
  for (auto const& operation : operations())
    EXPECT_NE(needOf(operation), nullptr) << operation << " is for nobody in particular";
  EXPECT_THAT(operations(),
              testing::IsSupersetOf({"queryDiscoveries", "_get_pageSize", "_set_pageSize", "put",
                                     "close", "restartAllPushTimers"}));
  EXPECT_EQ(operations().size(), 13U);
}

TEST(OperationNeeds, eachIsForOneKindOfPeer)
{
  std::set<std::string> const control{"terminate", "restartLocalPushTimer", "restartAllPushTimers"};
  std::set<std::string> const write{"putCollection", "put", "close", "registerExplorer"};
  for (auto const& operation : operations())
    EXPECT_EQ(rightsFor(operation), control.contains(operation) ? MAY_CONTROL
                                    : write.contains(operation) ? MAY_WRITE
                                                                : MAY_READ)
        << operation;
}

TEST(OperationNeeds, whatAnyObjectIsAskedIsForWhoMayDoAnything)
{
  for (char const* operation : {"_is_a", "_non_existent", "_not_existent", "_interface"})
    EXPECT_EQ(rightsFor(operation), static_cast<unsigned>(MAY_READ | MAY_WRITE | MAY_CONTROL));
  EXPECT_EQ(needOf("terminate2"), nullptr);
  EXPECT_EQ(needOf(""), nullptr);
}

TEST(OperationNeeds, theMasterReadsAndRefreshesAndWhoIsAskedLists)
{
  for (auto const& operation : operations())
  {
    bool const isRead = rightsFor(operation) == MAY_READ;
    EXPECT_EQ(needOf(operation)->ofMaster, isRead || operation == "restartLocalPushTimer")
        << operation;
    bool const isListing = isRead && operation != "getCollectionData";
    EXPECT_EQ(needOf(operation)->ofAsked, isListing) << operation;
    EXPECT_EQ(needOf(operation)->some, isListing ? MAY_WRITE : 0U) << operation;
  }
}
