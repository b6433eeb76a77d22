// A database whose lists are answered from its index.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscDBIndex.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

namespace records
{

inline constexpr char INDEX_UPDATE[] = "DiscoveryIndex::update";

using ListPtr = AutoDereference<DiscoveryIterator>;
using ListedSubjects = std::multiset<std::string>;

// The process lists a database of its own from an index.
class IndexedDatabase : public testing::Test
{
protected:
  IndexedDatabase()
  {
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
    m_creator.init("");
    m_creator.keepIndex(true);
  }
  ~IndexedDatabase() override { unsetenv("TESSARINE_ROOT"); }

  std::string path(std::string const& name) const { return m_creator.getDirectory() + "/" + name; }
  static std::string fileOf(std::string const& subject) { return "2 hostA " + subject + ".xml"; }

  void put(std::string const& subject, std::string const& expires = FUTURE) const
  {
    writeText(path(fileOf(subject)), document(expires, 1, "hostA", subject));
  }

  ListPtr list() const { return ListPtr(m_creator.getIterator(DQ_UNDEFINED)); }

  ListedSubjects subjects() const { return subjectsListed(*list()); }

  static ListedSubjects subjectsListed(DiscoveryIterator& iterator)
  {
    ListedSubjects found;
    EXPECT_FALSE(iterator.list(
        [&found](ListedDiscovery const& listed)
        {
          found.insert(listed.subject);
          return true;
        }));
    return found;
  }

  // The next so many.
  static ListedSubjects some(DiscoveryIterator& iterator, std::size_t count)
  {
    ListedSubjects found;
    iterator.list(
        [&](ListedDiscovery const& listed)
        {
          found.insert(listed.subject);
          return found.size() < count;
        });
    return found;
  }

  // The calls that open metadata files in a list.
  std::vector<std::string> opens() const
  {
    SystemCalls const watched(m_creator.getDirectory());
    subjects();
    std::vector<std::string> found;
    for (std::string const& call : watched.seen())
      if (call.starts_with("open ") && call.ends_with(".xml"))
        found.push_back(call);
    return found;
  }

  static void shell(std::string const& command)
  {
    ASSERT_EQ(0, std::system(command.c_str())) << command;
  }
  std::string quoted(std::string const& name) const { return "'" + path(name) + "'"; }

  TempDir m_root;
  DiscoveryDBCreator m_creator;
};

} // namespace records
