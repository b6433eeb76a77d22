// What callers learn when there is no memory to read XML with.

#include "discovery/PullExplorerCache.h"
#include "discovery/Researcher.h"
#include "discovery/XMLHelper.h"
#include "tests/support/FailingXmlMemory.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

using namespace tqtest;

namespace
{

// Without memory for XML, on a thread that has no parser yet.
template <class Call>
void withoutXmlMemory(FailingXmlMemory& memory, Call call)
{
  std::thread(
      [&]
      {
        memory.failAfter(0);
        call();
        memory.recover();
      })
      .join();
  EXPECT_GT(memory.failed(), 0) << "nothing was read";
}

TEST(OutOfMemoryTest, aPriorityThatCannotBeReadIsNoMissingPriority)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  std::string text = "<Discovery><Priority>50</Priority></Discovery>";
  unsigned priority = 0;
  withoutXmlMemory(memory, [&] { EXPECT_THROW(XMLHelper::parse(text, priority), std::bad_alloc); });
  EXPECT_EQ(0, XMLHelper::parse(text, priority));
  EXPECT_EQ(50U, priority);
}

TEST(OutOfMemoryTest, aRegistrationThatCannotBeReadIsNoneWithoutValues)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  std::string const text = pullRegistrationText({"far", "DiscoveryService", 5, AT_TQUCLIENT});
  withoutXmlMemory(memory, [&] { EXPECT_THROW(readPullRegistration(text), std::bad_alloc); });
  auto const registration = readPullRegistration(text);
  ASSERT_TRUE(registration);
  EXPECT_EQ("far", registration->sourceHost);
  EXPECT_EQ("DiscoveryService", registration->serviceName);
  EXPECT_EQ(5U, registration->priority);
  EXPECT_EQ(AT_TQUCLIENT, registration->originType);
}

TEST(OutOfMemoryTest, aCollectionThatCannotBeReadIsNotOneWithoutItems)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  TempDir root;
  setenv("TESSARINE_ROOT", root.path().c_str(), 1);
  LogCapture log(1);
  std::string const text = "<DiscoveredItems><DISCOVERED Name=\"a\"/></DiscoveredItems>";
  withoutXmlMemory(memory,
                   [&]
                   {
                     auto const read = itemsOf(text);
                     EXPECT_FALSE(read.parsed);
                     EXPECT_EQ(0U, read.items.size());
                   });
  EXPECT_TRUE(log.has(1, "AuthSubIterator::parseDiscovery",
                      "Out of memory reading the discovery of authority about subject"))
      << log.text();
  auto const read = itemsOf(text);
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ(1U, read.items.size());
}

TEST(OutOfMemoryTest, aListThatCannotBeReadFurtherIsIncomplete)
{
  struct OutOfMemory : DiscoveryIterator
  {
    OutOfMemory() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
    Discovery* getNext() override { throw std::bad_alloc(); }
  };
  LogCapture log(1);
  AutoDereference<AuthSubIterator> const list(new AuthSubIterator(new OutOfMemory));
  EXPECT_EQ(nullptr, list->getNextCollectionItemIterator(nullptr));
  EXPECT_TRUE(list->isIncomplete());
  EXPECT_TRUE(log.has(1, "AuthSubIterator::getNextCollectionItemIterator",
                      "Out of memory reading the list of discoveries"))
      << log.text();
}

TEST(OutOfMemoryTest, aCallerFromTheNetworkIsToldOfIt)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  Service host;
  host.start();
  Remote::DiscoveryService_var const service = host.connect();
  ASSERT_EQ(DS_SUCCESS, Service::store("web1", "filesystem"));
  Remote::CollectionDataIterator_var data;
  auto const get = [&]
  {
    return service->getCollectionData(Service::record("web1", "filesystem", AT_TQUCLIENT), "",
                                      data.out());
  };
  LogCapture log(1);
  withoutXmlMemory(memory, [&] { EXPECT_THROW(get(), CORBA::NO_MEMORY) << log.text(); });
  auto const list = [&]
  {
    Remote::DiscoveryIterator_var const records =
        service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "filesystem");
    Remote::DiscoverySeq_var const page = records->getNextPage();
    return page->length();
  };
  withoutXmlMemory(memory, [&] { EXPECT_THROW(list(), CORBA::NO_MEMORY) << log.text(); });
  EXPECT_EQ(1U, list());
  EXPECT_EQ(DS_SUCCESS, get()) << log.text();
}

} // namespace
