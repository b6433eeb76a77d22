// Lists that are answered from the index of the directory.

#include "discovery/DiscDBIndex.h"

#include "discovery/MetadataCache.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/unit/discovery/IndexTesting.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>
#include <tuple>

using namespace records;
namespace fs = std::filesystem;

namespace
{

// All that a list tells, by file name as far as it can be told.
std::multiset<std::string> told(DiscoveryIterator& iterator)
{
  std::multiset<std::string> all;
  iterator.list(
      [&all](ListedDiscovery const& listed)
      {
        std::ostringstream os;
        os << listed.authorityType << '|' << listed.authority << '|' << listed.subject << '|';
        if (listed.attributes != nullptr)
          os << listed.attributes->getType() << '|' << listed.attributes->getStorage() << '|'
             << listed.attributes->getDiscoveryTime().seconds() << '|'
             << listed.attributes->getExpiresTime().seconds() << '|'
             << listed.attributes->getPriority();
        all.insert(os.str());
        return true;
      });
  return all;
}

} // namespace

TEST_F(IndexedDatabase, ASecondListOpensNoFile)
{
  for (char const* const subject : {"a", "b", "c"})
    put(subject);
  EXPECT_EQ(3u, opens().size());
  EXPECT_EQ(std::vector<std::string>{}, opens());
  put("b");
  EXPECT_EQ(std::vector<std::string>{"open " + fileOf("b")}, opens()) << "what changed is read";
  EXPECT_EQ((ListedSubjects{"a", "b", "c"}), subjects());
}

TEST_F(IndexedDatabase, WhatIsHandedOutToBeOpenedIsReadFromItsFile)
{
  put("a");
  subjects();
  AutoDereference<Discovery> const discovery(list()->getNext());
  ASSERT_TRUE(discovery);
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(path(fileOf("a"))));
}

TEST_F(IndexedDatabase, AListTellsWhatAWalkTells)
{
  std::string const longName(300, 'n');
  for (auto const& [authority, subject, type] :
       std::vector<std::tuple<std::string, std::string, AuthorityType>>{
           {"hostA", "s1", AT_TQUCLIENT},
           {"hostA", "s2", AT_EXTSRC},
           {"host A", "%/\xc3\xa4", AT_TQUSERVER},
           {"hostA", "pulled", AT_REMOTEPULL},
           {"hostA", longName, AT_TQUCLIENT},
           {longName, "star*" + longName, AT_TQUCLIENT},
           {"hostB", "s1", AT_ANYANDALL}})
    ASSERT_EQ(DS_SUCCESS, store(m_creator.getDirectory(), authority, subject, 3, "payload", type));
  std::string bare = document(FUTURE, 1, "hostA", "bare");
  bare.erase(bare.find("<DiscoveryAttributes"),
             bare.find("</DiscoveryData>") - bare.find("<DiscoveryAttributes"));
  writeText(path("2 hostA bare.xml"), bare);
  writeText(path("bad.xml"), document(FUTURE, 1, "hostA", "otherwise"));
  DiscoveryDBCreator walking;
  walking.init("");
  for (AuthorityType const type :
       {AT_ANYANDALL, AT_TQUSERVER, AT_TQUCLIENT, AT_EXTSRC, AT_REMOTEPULL})
    for (std::string const authority : {"*", "hostA", "host*", "host A", "*B", "nnn*"})
      for (std::string const& subject :
           {std::string("*"), std::string("s1"), std::string("s*"), longName, longName + "*",
            std::string(150, 'n') + "*", std::string("star*")})
        for (int time = 0; time < 2; ++time)
        {
          ListPtr const indexed = list();
          ListPtr const walked(walking.getIterator(DQ_UNDEFINED));
          for (DiscoveryIterator* const iterator : {indexed.get(), walked.get()})
          {
            iterator->setAuthority(authority, type);
            iterator->setSubject(subject);
          }
          EXPECT_EQ(told(*walked), told(*indexed)) << type << ' ' << authority << ' ' << subject;
        }
  EXPECT_EQ(7u, told(*list()).size());
}

TEST_F(IndexedDatabase, EachListHoldsEveryWriteBeforeIt)
{
  std::map<std::string, std::int64_t> stored;
  for (int number = 1; number < 400; ++number)
  {
    std::string const subject = "s" + std::to_string(number * 7 % 23);
    if (number % 5 == 0 && stored.erase(subject) == 1)
      fs::remove(path(fileOf(subject)));
    else
    {
      auto const discovery = make(m_creator.getDirectory(), "hostA", subject, 1);
      discovery->getAttributes()->setDiscoveryTime(OzfObjTime(number));
      ASSERT_EQ(DS_SUCCESS, store(*discovery, "payload"));
      stored[subject] = number;
    }
    std::map<std::string, std::int64_t> listed;
    list()->list(
        [&listed](ListedDiscovery const& one)
        {
          listed[one.subject] = one.attributes->getDiscoveryTime().seconds();
          return true;
        });
    ASSERT_EQ(stored, listed) << number;
  }
}

TEST_F(IndexedDatabase, WhatExpiresIsDeletedWhenItIsMet)
{
  static OzfObjTime moment;
  moment = OzfObjTime(1'000'000'000);
  OzfObjTime::setClock([] { return moment; });
  put("stays");
  put("goes", "2001-09-09T01:47:00Z"); // 20 seconds later
  put("refreshed", "2001-09-09T01:47:00Z");
  writeText(path("2 hostA goes.dat"), "payload");
  EXPECT_EQ((ListedSubjects{"stays", "goes", "refreshed"}), subjects());
  EXPECT_EQ(0u, opens().size());
  put("refreshed");
  moment = OzfObjTime(1'000'000'021);
  LogCapture log;
  EXPECT_EQ((ListedSubjects{"stays", "refreshed"}), subjects());
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::getDiscovery", "2 hostA goes.xml has expired"));
  EXPECT_FALSE(fs::exists(path(fileOf("goes"))));
  EXPECT_FALSE(fs::exists(path("2 hostA goes.dat")));
  EXPECT_EQ((ListedSubjects{"stays", "refreshed"}), subjects());
  OzfObjTime::setClock(nullptr);
}

TEST_F(IndexedDatabase, AnExpiredRecordThatAnotherProcessReadsIsMetAgain)
{
  put("kept", PAST);
  OtherProcess reader(path(fileOf("kept")), F_RDLCK);
  for (int time = 0; time < 3; ++time)
  {
    LogCapture log;
    EXPECT_EQ(ListedSubjects{}, subjects());
    EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::getDiscovery",
                           "2 hostA kept.xml could not be expired"));
  }
  reader.leave();
  EXPECT_EQ(ListedSubjects{}, subjects());
  EXPECT_FALSE(fs::exists(path(fileOf("kept"))));
}

TEST_F(IndexedDatabase, AClockThatIsPutBackBringsBackWhatIsStillThere)
{
  static OzfObjTime clockNow;
  clockNow = OzfObjTime(1'000'000'000);
  OzfObjTime::setClock([] { return clockNow; });
  put("kept", "2001-09-09T01:47:00Z"); // 20 seconds later
  EXPECT_EQ(ListedSubjects{"kept"}, subjects());
  {
    OtherProcess const reader(path(fileOf("kept")), F_RDLCK);
    clockNow = OzfObjTime(1'000'000'021);
    EXPECT_EQ(ListedSubjects{}, subjects());
  }
  clockNow = OzfObjTime(1'000'000'000);
  EXPECT_EQ(ListedSubjects{"kept"}, subjects());
  clockNow = OzfObjTime(1'000'000'021);
  EXPECT_EQ(ListedSubjects{}, subjects());
  EXPECT_FALSE(fs::exists(path(fileOf("kept"))));
  OzfObjTime::setClock(nullptr);
}

TEST_F(IndexedDatabase, BadFilesAreReportedEachTime)
{
  put("good");
  writeText(path("2 a empty.xml"), "");
  writeText(path("2 a broken.xml"), "<DiscoveryData>");
  writeText(path("2 a nobody.xml"), "<DiscoveryData></DiscoveryData>");
  fs::create_directory(path("2 a directory.xml"));
  std::string odd = document(FUTURE, 1, "hostA", "odd");
  odd.replace(odd.find("<Priority>1"), 11, "<Priority>one");
  writeText(path("2 hostA odd.xml"), odd);
  auto const lines = [](auto read)
  {
    LogCapture log(1);
    read();
    std::multiset<std::string> texts;
    for (auto const& line : log.lines())
      texts.insert(line.text);
    return texts;
  };
  auto const walked = lines(
      [this]
      {
        ListPtr const walk = list();
        while (AutoDereference<Discovery>(walk->getNext()))
          ;
      });
  EXPECT_GE(walked.size(), 7u);
  for (int time = 0; time < 3; ++time)
    EXPECT_EQ(walked, lines([this] { EXPECT_EQ((ListedSubjects{"good", "odd"}), subjects()); }));
}

TEST_F(IndexedDatabase, WaitsForAWriterAndNeverTellsHalfOfAWrite)
{
  put("a");
  subjects();
  std::string const whole = document(FUTURE, 1, "hostA", "b");
  std::string const file = path(fileOf("a"));
  OtherProcess writer(file, F_WRLCK,
                      [&]
                      {
                        int const fd = ::open(file.c_str(), O_WRONLY);
                        if (::pwrite(fd, whole.data(), whole.size(), 0) < 0)
                          _exit(1);
                      });
  EXPECT_EQ(ListedSubjects{"a"}, subjects()) << "nothing has been written yet";
  int const fd = ::open(file.c_str(), O_WRONLY);
  ASSERT_EQ(20, ::pwrite(fd, whole.data(), 20, 0)); // as that process would
  ListedSubjects found;
  std::thread reader([&] { found = subjects(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(file); }));
  writer.leave();
  reader.join();
  ::close(fd);
  EXPECT_EQ(ListedSubjects{"b"}, found);
}

TEST_F(IndexedDatabase, AWalkGoesOnWhereTheIndexLeftOff)
{
  for (int i = 0; i < 20; ++i)
    put("s" + std::to_string(i));
  std::string const link = m_root / "link";
  fs::create_directory_symlink(m_creator.getDirectory(), link);
  DBDiscoveryIterator iterator(m_creator.getDirectory().c_str(), m_creator,
                               std::make_shared<DiscoveryIndex>(link));
  ListedSubjects found = some(iterator, 7);
  EXPECT_EQ(7u, found.size());
  fs::remove(link);
  fs::create_directory_symlink("/proc/self/task", link);
  found.merge(subjectsListed(iterator));
  EXPECT_EQ(20u, found.size());
  EXPECT_EQ(20u, std::set<std::string>(found.begin(), found.end()).size());
}

TEST_F(IndexedDatabase, PagesHoldEachRecordThatStaysOnce)
{
  for (int i = 0; i < 60; ++i)
    put("stays" + std::to_string(i));
  ListPtr const iterator = list();
  ListedSubjects all;
  for (int page = 0;; ++page)
  {
    put("comes" + std::to_string(page * 37 % 100));
    fs::remove(path(fileOf("comes" + std::to_string(page * 11 % 100))));
    put("stays" + std::to_string(page * 13 % 60));
    ListedSubjects const found = some(*iterator, 7);
    if (found.empty())
      break;
    all.insert(found.begin(), found.end());
  }
  for (int i = 0; i < 60; ++i)
    EXPECT_EQ(1u, all.count("stays" + std::to_string(i))) << i;
  EXPECT_FALSE(iterator->list([](ListedDiscovery const&) { return true; }))
      << "it stays at its end";
}

TEST_F(IndexedDatabase, WhatTheSystemFailsToReadMakesTheListIncompleteUntilItIsRead)
{
  put("a");
  put("b");
  put("c");
  auto const listed = [this](std::string const& call, int error)
  {
    SystemCalls const watched(m_creator.getDirectory(), [&](std::string const& seen)
                              { return seen.starts_with(call) ? error : 0; });
    ListPtr const iterator = list();
    ListedSubjects const found = subjectsListed(*iterator);
    return std::pair(found.size(), iterator->isIncomplete());
  };
  std::pair const missing(std::size_t(2), true);
  EXPECT_EQ(missing, listed("open 2 hostA b.xml", EIO));
  EXPECT_EQ(missing, listed("pread 2 hostA b.xml", EIO));
  EXPECT_EQ(missing, listed("fcntl setlk read 2 hostA b.xml", ENOLCK));
  EXPECT_EQ(std::pair(std::size_t(3), false), listed("nothing", 0));
  EXPECT_EQ(std::pair(std::size_t(3), false), listed("open 2 hostA b.xml", EIO)) << "not opened";
}

TEST_F(IndexedDatabase, ARecordTakesNoMoreThanSixHundredBytes)
{
  constexpr std::size_t COUNT = 5000;
  for (std::size_t i = 0; i < COUNT; ++i)
  {
    std::string const subject = "client-" + std::to_string(100'000 + i) + ".example.net";
    writeText(path("2 filesystem " + subject + ".xml"), document(FUTURE, 1, "filesystem", subject));
  }
  DiscoveryIndex index(m_creator.getDirectory());
  auto const before = mallinfo2().uordblks;
  {
    DBDiscoveryIterator iterator(m_creator.getDirectory().c_str(), m_creator,
                                 std::shared_ptr<DiscoveryIndex>(&index, [](auto*) {}));
    std::size_t count = 0;
    iterator.list([&count](ListedDiscovery const&) { return ++count > 0; });
    EXPECT_EQ(COUNT, count);
  }
  std::size_t const bytes = (mallinfo2().uordblks - before) / COUNT;
  RecordProperty("bytes", std::to_string(bytes));
  EXPECT_LT(bytes, 600u);
  EXPECT_EQ(0u, getMetadataCache().held()) << "once is enough";
}

TEST_F(IndexedDatabase, ThreadsListWhileFilesChange)
{
  for (int i = 0; i < 30; ++i)
    put("stays" + std::to_string(i));
  std::atomic<bool> ended = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back(
        [&]
        {
          while (!ended)
          {
            ListPtr const iterator = list();
            ListedSubjects all;
            for (ListedSubjects found; !(found = some(*iterator, 7)).empty();)
              all.insert(found.begin(), found.end());
            ASSERT_LE(30u, all.size());
          }
        });
  for (int round = 0; round < 300; ++round)
  {
    ASSERT_EQ(DS_SUCCESS, store(m_creator.getDirectory(), "hostA",
                                "stays" + std::to_string(round % 30), 1, "payload"));
    put("comes" + std::to_string(round % 7));
    fs::remove(path(fileOf("comes" + std::to_string(round * 3 % 7))));
    if (round % 50 == 49)
      m_creator.keepIndex(round % 100 == 99);
  }
  ended = true;
  for (auto& reader : readers)
    reader.join();
}
