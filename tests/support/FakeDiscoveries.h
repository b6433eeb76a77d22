// Discoveries whose collections are texts in memory.

#pragma once

#include "discovery/Researcher.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace tqtest
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

class TextCollection : public CollectionData
{
public:
  explicit TextCollection(std::string data) : text(std::move(data)) {}

  std::string text;
  int openResult = 1;
  std::size_t failAt = std::string::npos; // where a read fails
  std::size_t largestPiece = std::string::npos;

  OpenMode openMode = OM_UPDATE;
  std::string openedWith = "(not opened)";
  mutable std::vector<unsigned long> asked; // the lengths of all reads

  int open(OpenMode mode, char const* name) override
  {
    openMode = mode;
    openedWith = name == nullptr ? "(null)" : name;
    return openResult;
  }
  long readCollection(unsigned long len, void* buf) const override
  {
    asked.push_back(len);
    if (m_position >= failAt)
      return -1;
    std::size_t const count = std::min({static_cast<std::size_t>(len), text.size() - m_position,
                                        failAt - m_position, largestPiece});
    std::memcpy(buf, text.data() + m_position, count);
    m_position += count;
    return static_cast<long>(count);
  }
  long writeCollection(unsigned long, void const*) const override { return 0; }

private:
  mutable std::size_t m_position = 0;
};

// Takes its parts over.
class FakeDiscovery : public Discovery
{
public:
  FakeDiscovery(Authority* authority, Subject* subject, CollectionData* data)
      : Discovery(data, DQ_DISCOVERY_DATA)
  {
    if (authority != nullptr)
      setAuthority(authority);
    if (subject != nullptr)
      setSubject(subject);
  }
  FakeDiscovery(std::string const& subject, std::string const& text)
      : FakeDiscovery(new Authority("authority", AT_TQUCLIENT), new Subject(subject),
                      new TextCollection(text))
  {
  }
  DiscoveryStatus persist() override { return DS_LOGIC_ERROR; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_LOGIC_ERROR; }
};

class FakeIterator : public virtual DiscoveryIterator
{
public:
  FakeIterator() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}

  std::deque<AutoDereference<Discovery>> discoveries;

  // Takes over the reference.
  void add(Discovery* discovery) { discoveries.emplace_back(discovery); }

  Discovery* getNext() override
  {
    if (discoveries.empty())
      return nullptr;
    Discovery* const next = discoveries.front().release();
    discoveries.pop_front();
    return next;
  }
};

// An iterator over one discovery with that collection.
inline AutoDereference<AuthSubIterator> iteratorOver(std::string const& text)
{
  auto* const discoveries = new FakeIterator;
  discoveries->add(new FakeDiscovery("subject", text));
  return AutoDereference<AuthSubIterator>(new AuthSubIterator(discoveries));
}

struct ReadItems
{
  bool parsed = false;
  std::vector<AutoDereference<CollectionItem>> items;
};

// What is read from a collection.
inline ReadItems itemsOf(std::string const& text)
{
  ReadItems read;
  auto const discoveries = iteratorOver(text);
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(nullptr));
  read.parsed = items->isParsed();
  for (;;)
  {
    AutoDereference<CollectionItem> item(items->getNextCollectionItem());
    if (!item)
      return read;
    read.items.push_back(std::move(item));
  }
}

inline std::string written(CollectionItem const& item, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  std::ostringstream os;
  item.writeXml(os, encoding);
  return os.str();
}

} // namespace tqtest
