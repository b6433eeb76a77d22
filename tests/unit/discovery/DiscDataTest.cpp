#include "discovery/DiscData.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OddLocale.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

OzfObjTime g_now;
OzfObjTime fixedClock() { return g_now; }

class FixedClock
{
public:
  explicit FixedClock(OzfObjTime now)
  {
    g_now = now;
    OzfObjTime::setClock(fixedClock);
  }
  ~FixedClock() { OzfObjTime::setClock(nullptr); }
};

class TestDiscovery : public Discovery
{
public:
  explicit TestDiscovery(CollectionData* data = nullptr) : Discovery(data, DQ_FILTER_DATA) {}
  DiscoveryStatus persist() override { return DS_SUCCESS; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_SUCCESS; }
};

class TestIterator : public DiscoveryIterator
{
public:
  TestIterator() : DiscoveryIterator(AT_ANYANDALL, "s/1", "a 1") {}
  Discovery* getNext() override { return nullptr; }
};

// Counts its destructions.
class CountedPayload : public CollectionData
{
public:
  explicit CountedPayload(int& gone) : m_gone(gone) {}
  ~CountedPayload() override { ++m_gone; }
  int open(OpenMode, char const*) override { return 1; }
  long readCollection(unsigned long, void*) const override { return 0; }
  long writeCollection(unsigned long, void const*) const override { return 1; }

private:
  int& m_gone;
};

CollectionAttributes attributesFor(long interval)
{
  return {CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(5), OzfObjTime(interval), 3};
}

} // namespace

TEST(DiscData, EnumerationsHaveTheirWireValues)
{
  EXPECT_EQ(0, AT_ANYANDALL);
  EXPECT_EQ(1, AT_TQUSERVER);
  EXPECT_EQ(2, AT_TQUCLIENT);
  EXPECT_EQ(3, AT_EXTSRC);
  EXPECT_EQ(4, AT_REMOTEPULL);
  EXPECT_EQ(2, CT_POINT_IN_TIME);
  EXPECT_EQ(1, CS_CENTRALREPOSITORY);
  EXPECT_EQ(0, OM_UPDATE);
  EXPECT_EQ(1, OM_READ);
  EXPECT_EQ(5, DS_DATA_EXISTS);
  EXPECT_EQ(2, DQ_FILTER_DATA);
  EXPECT_EQ(8u, sizeof(PollingInterval));
  EXPECT_EQ(4u, sizeof(ExplorerPriority));
}

TEST(DiscData, OnlyDsSuccessIsSuccess)
{
  DiscoveryResult result{};
  result.discStatus = DS_SUCCESS;
  EXPECT_TRUE(isSuccess(result));
  for (int status = DS_NONE_FOUND; status <= DS_DATA_EXISTS; ++status)
  {
    result.discStatus = static_cast<DiscoveryStatus>(status);
    EXPECT_FALSE(isSuccess(result)) << status;
  }
}

TEST(Subject, ComparesWithoutCase)
{
  EXPECT_TRUE(Subject("Host1") == Subject("hOST1"));
  EXPECT_FALSE(Subject("Host1") == Subject("Host2"));
  EXPECT_TRUE(Subject("b") > Subject("A"));
  EXPECT_FALSE(Subject("a") > Subject("B"));
  EXPECT_FALSE(Subject("Host1") > Subject("hOST1"));
}

TEST(Subject, KeepsTheNameAsShownAndAsFileKey)
{
  Subject const subject("a b/c%");
  EXPECT_EQ("a b/c%", subject.getName().str());
  EXPECT_EQ("a%20b%2Fc%25", subject.getFileKey().str());
  Subject const again(subject.getName().str());
  EXPECT_EQ(subject.getName().str(), again.getName().str());
}

TEST(Subject, OfAUriIsNamedAfterItsScheme)
{
  EXPECT_EQ("vol", Subject(Uri("vol://host/path")).getName().str());
}

TEST(Subject, WithoutANameFailsAnAssertion)
{
  LogCapture log;
  EXPECT_THROW(Subject(""), AssertionFailure);
  EXPECT_TRUE(log.has(1, "Subject::Subject", "Assertion failed: m_subject.size()")) << log.text();
  EXPECT_NE(std::string::npos, log.text().find("(DiscData:"));
  EXPECT_THROW(Subject(Uri("no scheme")), AssertionFailure);
}

TEST(Authority, WithoutANameFailsAnAssertion)
{
  LogCapture log;
  EXPECT_THROW(Authority("", AT_EXTSRC), AssertionFailure);
  EXPECT_TRUE(log.has(1, "Authority::Authority", "Assertion failed: name.size()")) << log.text();
  EXPECT_THROW(Authority(UriAuthority(), AT_EXTSRC), AssertionFailure);
  EXPECT_TRUE(log.has(1, "Authority::Authority", "Assertion failed: m_name.size()")) << log.text();
}

TEST(Authority, IsEqualOnlyWithTheSameType)
{
  EXPECT_FALSE(Authority("x", AT_TQUSERVER) == Authority("X", AT_TQUCLIENT));
  EXPECT_TRUE(Authority("x", AT_TQUSERVER) == Authority("X", AT_TQUSERVER));
  EXPECT_FALSE(Authority("x", AT_TQUSERVER) == Authority("y", AT_TQUSERVER));
}

TEST(Authority, IsGreaterByNameOrElseByType)
{
  EXPECT_TRUE(Authority("a", AT_TQUCLIENT) > Authority("b", AT_TQUSERVER));
  EXPECT_TRUE(Authority("b", AT_TQUSERVER) > Authority("a", AT_TQUCLIENT));
  EXPECT_FALSE(Authority("a", AT_TQUSERVER) > Authority("b", AT_TQUCLIENT));
  EXPECT_FALSE(Authority("A", AT_TQUCLIENT) > Authority("a", AT_TQUCLIENT));
  EXPECT_TRUE(Authority("A", AT_REMOTEPULL) > Authority("a", AT_TQUCLIENT));
}

TEST(Names, CompareTheSameInEveryLocale)
{
  tqtest::OddLocale const locale;
  EXPECT_TRUE(Subject("DISK-I") == Subject("disk-i"));
  EXPECT_FALSE(Subject("i") > Subject("I"));
  EXPECT_FALSE(Subject("I") > Subject("i"));
  EXPECT_TRUE(Authority("HOST-I", AT_TQUCLIENT) == Authority("host-i", AT_TQUCLIENT));
  EXPECT_FALSE(Authority("i", AT_TQUCLIENT) > Authority("I", AT_TQUCLIENT));
  EXPECT_FALSE(Authority("I", AT_TQUCLIENT) > Authority("i", AT_TQUCLIENT));
}

TEST(Authority, TakesItsNameFromTheWholeUriAuthority)
{
  Authority const authority("user@host:80", AT_EXTSRC);
  EXPECT_EQ("user@host:80", authority.getName().str());
  EXPECT_EQ("user%40host%3A80", authority.getFileKey().str());
  EXPECT_EQ("host", Authority(Uri("x://host/path"), AT_EXTSRC).getName().str());
  UriAuthority parsed;
  parsed.setAuthority("other:1");
  EXPECT_EQ("other:1", Authority(parsed, AT_EXTSRC).getName().str());
}

TEST(Description, AddsAReferenceToItsStatusAndWritesOnlyThat)
{
  AutoDereference<StatusMsg> const status(new StatusMsg(13, StatusMsg::ERROR, "bad <disk>"));
  {
    Subject const subject("s", status.get());
    Subject const copy(subject);
    EXPECT_EQ(3, status->referenceCount());
    std::ostringstream expected;
    status->writeXml(expected, XmlStr::UTF_8);
    std::ostringstream written;
    copy.Description::writeXml(written, XmlStr::UTF_8);
    EXPECT_EQ(expected.str(), written.str());
  }
  EXPECT_EQ(1, status->referenceCount());
  std::ostringstream nothing;
  Description().writeXml(nothing, XmlStr::UTF_8);
  EXPECT_EQ("", nothing.str());
}

TEST(CollectionAttributes, ExpireAQuarterBeyondTheIntervalCountedFromNow)
{
  FixedClock const clock(OzfObjTime(1000, 900000));
  EXPECT_EQ(OzfObjTime(1125, 900000), attributesFor(100).getExpiresTime());
  EXPECT_EQ(OzfObjTime(1002, 150000), attributesFor(1).getExpiresTime());
  EXPECT_EQ(OzfObjTime(1000, 900000), attributesFor(0).getExpiresTime());
}

TEST(CollectionAttributes, KeepWhatTheyAreGiven)
{
  CollectionAttributes const attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(7, 8),
                                        OzfObjTime(9), 42);
  EXPECT_EQ(CT_POINT_IN_TIME, attributes.getType());
  EXPECT_EQ(CS_CENTRALREPOSITORY, attributes.getStorage());
  EXPECT_EQ(OzfObjTime(7, 8), attributes.getDiscoveryTime());
  EXPECT_EQ(OzfObjTime(9), attributes.getValidityInterval());
  EXPECT_EQ(42u, attributes.getPriority());
  EXPECT_TRUE(attributes.getSignature().empty());
}

TEST(IsExpired, ComparesSecondsThenMicrosecondsStrictly)
{
  FixedClock const clock(OzfObjTime(1000, 500));
  AutoDereference<TestDiscovery> const discovery(new TestDiscovery);
  EXPECT_FALSE(isExpired(discovery.get())) << "no attributes";

  discovery->setAttributes(new CollectionAttributes(attributesFor(0)));
  auto const expiredAt = [&](OzfObjTime time)
  {
    discovery->getAttributes()->setExpiresTime(time);
    return isExpired(discovery.get());
  };
  EXPECT_TRUE(expiredAt(OzfObjTime(1000, 499)));
  EXPECT_FALSE(expiredAt(OzfObjTime(1000, 500)));
  EXPECT_FALSE(expiredAt(OzfObjTime(1000, 501)));
  EXPECT_TRUE(expiredAt(OzfObjTime(999, 999999)));
  EXPECT_FALSE(expiredAt(OzfObjTime(1001, 0)));
  EXPECT_FALSE(expiredAt(OzfObjTime())) << "zero is not set";
}

TEST(Discovery, OwnsItsPartsAndReplacesThem)
{
  int gone = 0;
  AutoDereference<StatusMsg> const status(new StatusMsg(1, StatusMsg::WARNING, "w"));
  {
    AutoDereference<TestDiscovery> const discovery(new TestDiscovery(new CountedPayload(gone)));
    EXPECT_EQ(nullptr, discovery->getAuthority());
    EXPECT_EQ(nullptr, discovery->getSubject());
    EXPECT_EQ(nullptr, discovery->getAttributes());
    EXPECT_EQ(DQ_FILTER_DATA, discovery->getQuery());
    discovery->setAuthority(new Authority("a", AT_EXTSRC, status.get()));
    discovery->setSubject(new Subject("s", status.get()));
    EXPECT_EQ(3, status->referenceCount());
    discovery->setAuthority(new Authority("b", AT_EXTSRC));
    EXPECT_EQ(2, status->referenceCount());
    discovery->setSubject(nullptr);
    EXPECT_EQ(1, status->referenceCount());
    EXPECT_EQ(nullptr, discovery->getSubject());
    discovery->setCollectionData(new CountedPayload(gone));
    EXPECT_EQ(1, gone);
  }
  EXPECT_EQ(2, gone);
}

TEST(Discovery, ThePayloadGoesFirstThenAttributesSubjectAndAuthority)
{
  static std::string order;
  struct LastData : CountedPayload
  {
    using CountedPayload::CountedPayload;
    ~LastData() override { order += "payload "; }
  };
  struct LastAttributes : CollectionAttributes
  {
    using CollectionAttributes::CollectionAttributes;
    ~LastAttributes() override { order += "attributes "; }
  };
  struct LastSubject : Subject
  {
    using Subject::Subject;
    ~LastSubject() override { order += "subject "; }
  };
  struct LastAuthority : Authority
  {
    using Authority::Authority;
    ~LastAuthority() override { order += "authority"; }
  };
  int gone = 0;
  {
    AutoDereference<TestDiscovery> const discovery(new TestDiscovery(new LastData(gone)));
    discovery->setAuthority(new LastAuthority("a", AT_EXTSRC));
    discovery->setSubject(new LastSubject("s"));
    discovery->setAttributes(
        new LastAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 1));
  }
  EXPECT_EQ("payload attributes subject authority", order);
}

TEST(DiscoveryIterator, KeepsItsFiltersAsGiven)
{
  AutoDereference<TestIterator> const iterator(new TestIterator);
  EXPECT_EQ(AT_ANYANDALL, iterator->getAuthorityType());
  EXPECT_EQ("s/1", iterator->getSubjectFilter());
  EXPECT_EQ("a 1", iterator->getAuthorityFilter());
}

TEST(DiscoveryIterator, FiltersByFileKey)
{
  AutoDereference<TestIterator> const iterator(new TestIterator);
  iterator->setSubject("x y");
  iterator->setAuthority("h:1", AT_EXTSRC);
  EXPECT_EQ("x%20y", iterator->getSubjectFilter());
  EXPECT_EQ("h%3A1", iterator->getAuthorityFilter());
  EXPECT_EQ(AT_EXTSRC, iterator->getAuthorityType());
  iterator->setSubject("host*");
  EXPECT_EQ("host*", iterator->getSubjectFilter());
  std::string const longPattern = "host*" + std::string(200, 'x');
  iterator->setSubject(longPattern);
  EXPECT_EQ("host*", iterator->getSubjectFilter()) << "no pattern matches a hash";
  iterator->setAuthority(longPattern, AT_EXTSRC);
  EXPECT_EQ("host*", iterator->getAuthorityFilter());
  EXPECT_EQ(Subject(longPattern).getFileKey().str().size(), 93u) << "but a name is hashed";
  EXPECT_EQ(Authority(longPattern, AT_EXTSRC).getFileKey().str().size(), 93u);

  iterator->setSubject(Uri("vol:x"));
  iterator->setAuthority(Uri("x://h/p"), AT_TQUSERVER);
  EXPECT_EQ("vol", iterator->getSubjectFilter());
  EXPECT_EQ("h", iterator->getAuthorityFilter());
  EXPECT_EQ(AT_TQUSERVER, iterator->getAuthorityType());

  UriAuthority parsed;
  parsed.setAuthority("k:2");
  iterator->setAuthority(parsed, AT_REMOTEPULL);
  EXPECT_EQ("k%3A2", iterator->getAuthorityFilter());
  EXPECT_EQ(AT_REMOTEPULL, iterator->getAuthorityType());
}

TEST(DiscoveryIterator, EmptyNamesAndNamesThatBeginWithAStarLeaveTheFilter)
{
  AutoDereference<TestIterator> const iterator(new TestIterator);
  iterator->setSubject("");
  iterator->setSubject("*");
  iterator->setSubject("*host");
  EXPECT_EQ("s/1", iterator->getSubjectFilter());

  iterator->setAuthority("", AT_EXTSRC);
  EXPECT_EQ(AT_EXTSRC, iterator->getAuthorityType()) << "the type is always set";
  iterator->setAuthority("*x", AT_TQUCLIENT);
  EXPECT_EQ(AT_TQUCLIENT, iterator->getAuthorityType());
  EXPECT_EQ("a 1", iterator->getAuthorityFilter());
}
