#include "discovery/CombiningIterator.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

class Record : public Discovery
{
public:
  Record() : Discovery(nullptr, DQ_UNDEFINED) {}
  DiscoveryStatus persist() override { return DS_SUCCESS; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_SUCCESS; }
};

// Gives out new records and counts how often it is asked.
class Source : public virtual DiscoveryIterator
{
public:
  explicit Source(int records) : DiscoveryIterator(AT_ANYANDALL, "", ""), m_left(records) {}

  Discovery* getNext() override
  {
    ++m_asked;
    if (m_left == 0)
      return nullptr;
    --m_left;
    m_given.push_back(new Record);
    return m_given.back();
  }

  int asked() const { return m_asked; }
  std::vector<Discovery*> const& given() const { return m_given; }

private:
  int m_left;
  int m_asked = 0;
  std::vector<Discovery*> m_given;
};

using Children = std::vector<AutoDereference<DiscoveryIterator>>;

} // namespace

TEST(CombiningIteratorTest, IsEmptyWithoutChildren)
{
  AutoDereference<CombiningIterator> const iterator(
      new CombiningIterator(AT_EXTSRC, "subject", "authority", {}));
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST(CombiningIteratorTest, DrainsChildrenInTheirOrder)
{
  AutoDereference<Source> const a(new Source(2));
  AutoDereference<Source> const b(new Source(0));
  AutoDereference<Source> const c(new Source(1));
  AutoDereference<CombiningIterator> const iterator(
      new CombiningIterator(AT_EXTSRC, "", "", Children{a, b, c}));

  AutoDereference<Discovery> const first(iterator->getNext());
  AutoDereference<Discovery> const second(iterator->getNext());
  AutoDereference<Discovery> const third(iterator->getNext());
  ASSERT_EQ(a->given().size(), 2U);
  ASSERT_EQ(c->given().size(), 1U);
  EXPECT_EQ(first.get(), a->given()[0]);
  EXPECT_EQ(second.get(), a->given()[1]);
  EXPECT_EQ(third.get(), c->given()[0]);
  EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST(CombiningIteratorTest, NeverAsksAnExhaustedChildAgain)
{
  AutoDereference<Source> const a(new Source(1));
  AutoDereference<Source> const b(new Source(0));
  AutoDereference<CombiningIterator> const iterator(
      new CombiningIterator(AT_EXTSRC, "", "", Children{a, b}));
  AutoDereference<Discovery> const first(iterator->getNext());
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(a->asked(), 2);
  EXPECT_EQ(b->asked(), 1);
}

TEST(CombiningIteratorTest, KeepsItsFiltersAndAReferenceToEachChild)
{
  AutoDereference<Source> const a(new Source(0));
  {
    AutoDereference<CombiningIterator> const iterator(
        new CombiningIterator(AT_TQUCLIENT, "a subject", "an authority", Children{a}));
    EXPECT_EQ(iterator->getAuthorityType(), AT_TQUCLIENT);
    EXPECT_EQ(iterator->getSubjectFilter(), "a subject");
    EXPECT_EQ(iterator->getAuthorityFilter(), "an authority");
    EXPECT_EQ(a->referenceCount(), 2);
  }
  EXPECT_EQ(a->referenceCount(), 1);
}

TEST(CombiningIteratorTest, HandsOverOneReference)
{
  AutoDereference<Source> const a(new Source(1));
  AutoDereference<CombiningIterator> const iterator(
      new CombiningIterator(AT_ANYANDALL, "", "", Children{a}));
  AutoDereference<Discovery> const record(iterator->getNext());
  EXPECT_EQ(record->referenceCount(), 1);
}
