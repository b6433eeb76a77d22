#include "explorers/ListenerExplorer.h"

#include "discovery/ExplorerPayload.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using Explorers::ListenerExplorer;

TEST(ListenerExplorer, storesAnItemForEachListener)
{
  Store store;
  AutoDereference<ListenerExplorer> const explorer(new ListenerExplorer(fixture("server")));
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  auto const record = store.only(AT_TQUCLIENT);
  EXPECT_EQ("listener", record.authority);
  Document const document(record.payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ(9U, document.items.size());
  std::map<std::string, std::string> const ssh = {{"Protocol", "tcp"},
                                                  {"Address", "::"},
                                                  {"Port", "22"},
                                                  {"Process", "sshd"},
                                                  {"User", "root"}};
  ASSERT_NE(nullptr, document.find("tcp [::]:22"));
  EXPECT_EQ(ssh, document.find("tcp [::]:22")->facts);
  EXPECT_EQ(Explorers::filterDocument(Explorers::listenerFacts()), store.only(AT_EXTSRC).payload);
}

TEST(ListenerExplorer, theNameOfAProcessCannotBreakTheDocument)
{
  Store store;
  AutoDereference<ListenerExplorer> const explorer(new ListenerExplorer(fixture("server")));
  explore(*explorer, AT_TQUCLIENT, &store);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_NE(nullptr, document.find("tcp [2001:db8::1]:443"));
  EXPECT_EQ("<\xef\xbf\xbd[2J]&\n\xef\xbf\xbd",
            document.find("tcp [2001:db8::1]:443")->facts.at("Process"));
}

TEST(ListenerExplorer, thisHostIsExploredEveryFiveMinutes)
{
  Store store;
  AutoDereference<ListenerExplorer> const explorer(new ListenerExplorer);
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  EXPECT_TRUE(Document(store.only(AT_TQUCLIENT).payload).wellFormed);
  EXPECT_EQ(300U, explorer->getPollingInterval());
}
