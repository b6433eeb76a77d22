// A payload far larger than the memory that a reader may take for it.

#include "tests/support/LiveService.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>

namespace
{

using namespace tqtest;

constexpr char READER[] = TQ_BIN_DIR "/research_reader";
constexpr unsigned long MEBIBYTES = 256;
constexpr long MOST_MEMORY = 32L * 1024; // KiB

#if defined(__SANITIZE_ADDRESS__)
constexpr bool JUDGE_MEMORY = false;
#else
constexpr bool JUDGE_MEMORY = true;
#endif

class ResearchMemoryTest : public testing::Test
{
protected:
  void SetUp() override
  {
    Process process(READER, {m_service.root(), "store", "big", std::to_string(MEBIBYTES)});
    ASSERT_TRUE(process.wait(std::chrono::seconds(240)));
    ASSERT_EQ(process.exitCode(), 0) << process.errors();
    for (auto const& entry : std::filesystem::directory_iterator(m_service.database()))
      m_largest = std::max(m_largest, entry.is_regular_file() ? entry.file_size() : 0);
    ASSERT_EQ(m_largest, MEBIBYTES << 20);
  }

  void expectReadInLittleMemory(char const* mode)
  {
    Process process(READER, {m_service.root(), mode, "big", "0"});
    ASSERT_TRUE(process.wait(std::chrono::seconds(240)));
    ASSERT_EQ(process.exitCode(), 0) << process.errors();
    unsigned long items = 0;
    int parsed = 0;
    unsigned long long facts = 0;
    long grew = -1;
    ASSERT_EQ(std::sscanf(process.output().c_str(), "items %lu parsed %d facts %llu grew %ld",
                          &items, &parsed, &facts, &grew),
              4)
        << process.output();
    EXPECT_EQ(items, MEBIBYTES);
    EXPECT_EQ(parsed, 1) << process.errors();
    EXPECT_GT(facts, MEBIBYTES * 1000);
    ASSERT_GE(grew, 0);
    std::cout << mode << ": " << MEBIBYTES << " MiB with " << facts << " facts took " << grew
              << " KiB of memory\n";
    if (JUDGE_MEMORY)
      EXPECT_LT(grew, MOST_MEMORY);
    else
      std::cout << "not judged: AddressSanitizer keeps memory that was freed\n";
  }

  LiveService m_service;
  std::uintmax_t m_largest = 0;
};

TEST_F(ResearchMemoryTest, aStoredPayloadIsStreamedFromTheDatabase)
{
  expectReadInLittleMemory("local");
}

TEST_F(ResearchMemoryTest, aPayloadFromAnotherProcessNeedsNoMoreMemory)
{
  m_service.configure("COLLECTION_PAGE_SIZE = 1048576\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  expectReadInLittleMemory("remote");
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

} // namespace
