// A payload far larger than the memory that a reader may take for it.

#include "tests/support/LiveService.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace
{

using namespace tqtest;

constexpr char READER[] = TQ_BIN_DIR "/research_reader";
constexpr long MOST_MEMORY = 32L * 1024; // KiB

#if defined(__SANITIZE_ADDRESS__)
constexpr bool JUDGE_MEMORY = false;
#else
constexpr bool JUDGE_MEMORY = true;
#endif
// Where memory tells nothing, less is enough to be read in many pieces.
constexpr unsigned long MEBIBYTES = JUDGE_MEMORY ? 256 : 32;

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

// Payloads that are made to take many times their own size.
class HostilePayloadMemoryTest : public testing::Test
{
protected:
  struct Outcome
  {
    unsigned long items = 0;
    int parsed = -1;
    long peak = -1; // KiB
    long left = -1;
  };

  void SetUp() override { store("warm", "filesystems", 1); }

  void store(std::string const& subject, std::string const& shape, int mebibytes)
  {
    Process process(MAKER, {m_service.root(), "store", subject, shape, std::to_string(mebibytes)});
    ASSERT_TRUE(process.wait(std::chrono::seconds(120)));
    ASSERT_EQ(process.exitCode(), 0) << process.errors();
  }

  Outcome run(std::vector<std::string> const& arguments)
  {
    std::vector<std::string> all = {m_service.root()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Process process(MAKER, all);
    EXPECT_TRUE(process.wait(std::chrono::seconds(120)));
    EXPECT_EQ(process.exitCode(), 0) << process.errors();
    m_errors = process.errors();
    Outcome outcome;
    EXPECT_EQ(std::sscanf(process.output().c_str(), "items %lu parsed %d peak %ld left %ld",
                          &outcome.items, &outcome.parsed, &outcome.peak, &outcome.left),
              4)
        << process.output();
    std::cout << arguments.back() << ": " << process.output();
    return outcome;
  }

  // Read until the bound, which the log names, and nothing of it stays.
  void expectGivenUp(std::string const& shape, long mostPeak, std::string const& bound)
  {
    store(shape, shape, 32);
    Outcome const outcome = run({"read", shape});
    EXPECT_EQ(outcome.parsed, 0);
    EXPECT_NE(m_errors.find("Gave up reading the discovery of filesystem about " + shape),
              std::string::npos)
        << m_errors;
    EXPECT_NE(m_errors.find("more than " + bound), std::string::npos) << m_errors;
    if (!JUDGE_MEMORY)
      return;
    EXPECT_LT(outcome.peak, mostPeak);
    EXPECT_LT(outcome.left, LEFT);
  }

  static constexpr char const* MAKER = TQ_BIN_DIR "/payload_memory";
  static constexpr long LEFT = 8L * 1024; // KiB

  LiveService m_service;
  std::string m_errors;
};

TEST_F(HostilePayloadMemoryTest, distinctNamesAreReadUpToABound)
{
  expectGivenUp("names", 32L * 1024, "10000 different names of elements");
}

TEST_F(HostilePayloadMemoryTest, distinctAttributesAreReadUpToABound)
{
  expectGivenUp("attributes", 128L * 1024, "67108864 bytes for names, attributes and comments");
}

TEST_F(HostilePayloadMemoryTest, emptyQueryDescriptionsAreReadUpToABound)
{
  expectGivenUp("queries", 512L * 1024, "268435456 bytes of what is made of it");
}

TEST_F(HostilePayloadMemoryTest, emptyItemsAreReadUpToABound)
{
  expectGivenUp("items", 320L * 1024, "1000000 items");
}

TEST_F(HostilePayloadMemoryTest, theListOfClientsHoldsNoItems)
{
  // More than may be made of a collection, had it to be kept.
  for (char const* shape : {"queries", "filesystems"})
    store(shape, shape, 16);
  Outcome const outcome = run({"clients"});
  EXPECT_EQ(outcome.items, 3U);
  EXPECT_EQ(m_errors.find("Gave up"), std::string::npos) << m_errors;
  if (JUDGE_MEMORY)
  {
    EXPECT_LT(outcome.peak, 8L * 1024);
    EXPECT_LT(outcome.left, 4L * 1024);
  }
}

} // namespace
