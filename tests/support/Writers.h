// What tests of writers need: pieces of payload, a disk that is full, and a look
// at what writers have not finished.

#pragma once

#include "ozf/orb/Corba.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>

namespace tqtest
{

inline Quillon::Tessarine::Ozf::DiscoverySvc::Remote::CollectionDataSeq bytes(std::size_t count)
{
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::CollectionDataSeq data;
  data.length(static_cast<CORBA::ULong>(count));
  std::fill_n(data.get_buffer(), count, 'x');
  return data;
}

// Files of this process stay this small for a scope, as on a disk that is full.
class SmallFiles
{
public:
  explicit SmallFiles(rlim_t most)
  {
    m_action = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(0, getrlimit(RLIMIT_FSIZE, &m_before));
    rlimit const limit{most, m_before.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
  }
  ~SmallFiles()
  {
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &m_before));
    std::signal(SIGXFSZ, m_action);
  }
  SmallFiles(SmallFiles const&) = delete;
  SmallFiles& operator=(SmallFiles const&) = delete;

private:
  rlimit m_before{};
  void (*m_action)(int);
};

inline std::size_t temporaryFilesIn(std::string const& database)
{
  std::size_t count = 0;
  for (auto const& entry : std::filesystem::directory_iterator(database))
    count += entry.path().extension() == ".updating" ? 1 : 0;
  return count;
}

} // namespace tqtest
