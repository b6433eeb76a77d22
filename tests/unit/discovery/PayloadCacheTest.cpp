#include "discovery/PayloadCache.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/resource.h>
#include <vector>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t MOST = PayloadCache::MOST_IN_MEMORY;

std::string manyBytes(std::size_t size)
{
  std::string bytes(size, '\0');
  unsigned state = 1;
  for (char& byte : bytes)
    byte = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
  return bytes;
}

// Appends in pieces of that size.
bool fill(PayloadCache& cache, std::string const& bytes, std::size_t piece)
{
  for (std::size_t done = 0; done < bytes.size(); done += piece)
    if (!cache.append(bytes.data() + done, std::min(piece, bytes.size() - done)))
      return false;
  return true;
}

std::string contentOf(PayloadCache const& cache, std::size_t step = 100'000)
{
  std::string all;
  std::vector<char> buffer(step);
  for (long count; (count = cache.read(all.size(), step, buffer.data())) > 0;)
    all.append(buffer.data(), static_cast<std::size_t>(count));
  return all;
}

PayloadCache::Piece makePiece(std::string const& bytes)
{
  PayloadCache::Piece piece(new char[bytes.size()], [](char* memory) { delete[] memory; });
  std::copy(bytes.begin(), bytes.end(), piece.get());
  return piece;
}

struct PayloadCacheTest : testing::Test
{
  TempDir folder;
  LogCapture log;
};

// Lets this process write no further than that into any file.
struct FileLimit
{
  explicit FileLimit(rlim_t bytes)
  {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit limit = before;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileLimit()
  {
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
  }
  rlimit before{};
};

} // namespace

// Large and small, taken over and copied, up to a file and on.
TEST_F(PayloadCacheTest, PiecesThatAreTakenOverStandInTheirOrder)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(MOST + 300'000);
  std::string expected;
  for (std::size_t const size : {10u, 20'000u, 100u, 65'536u, 1u, 15'000u, 16'384u, 16'383u,
                                 200'000u, 5'000'000u - 500'000u, 70'000u, 3u})
  {
    std::string const piece = bytes.substr(expected.size() % 1000, size);
    ASSERT_TRUE(cache.append(makePiece(piece), piece.size()));
    expected += piece;
    ASSERT_TRUE(cache.append("small", 5));
    expected += "small";
    ASSERT_EQ(cache.size(), expected.size());
    EXPECT_EQ(cache.inFile(), expected.size() > MOST);
    EXPECT_TRUE(contentOf(cache, 7'777) == expected) << size;
  }
}

TEST_F(PayloadCacheTest, ASmallPayloadStaysInMemory)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(MOST);
  ASSERT_TRUE(fill(cache, bytes, 8192));
  EXPECT_FALSE(cache.inFile());
  EXPECT_EQ(cache.size(), bytes.size());
  EXPECT_TRUE(contentOf(cache) == bytes);
}

TEST_F(PayloadCacheTest, ALargePayloadGoesToAFileWithoutAName)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(2 * MOST + 12345);
  ASSERT_TRUE(fill(cache, bytes, 65536));
  EXPECT_TRUE(cache.inFile());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  EXPECT_EQ(cache.size(), bytes.size());
  EXPECT_TRUE(contentOf(cache) == bytes);
  EXPECT_TRUE(contentOf(cache, 7 * 11 * 13) == bytes);
  EXPECT_EQ(log.text(), "");
}

TEST_F(PayloadCacheTest, OnePieceMayBeLargerThanWhatMemoryHolds)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(MOST + 1);
  ASSERT_TRUE(fill(cache, bytes, bytes.size()));
  EXPECT_TRUE(cache.inFile());
  EXPECT_TRUE(contentOf(cache) == bytes);
}

TEST_F(PayloadCacheTest, ReadsBeginAndEndAnywhereInMemory)
{
  std::string const bytes = manyBytes(20'000);
  for (std::size_t const piece : {1, 777, 1024, 5000})
  {
    PayloadCache cache({folder.path()});
    ASSERT_TRUE(fill(cache, bytes, piece));
    for (std::size_t position = 0; position < bytes.size(); position += 61)
      for (std::size_t const count : {1, 1500, 9000, 20'000})
      {
        std::string const expected = bytes.substr(position, count);
        std::string buffer(count, '\0');
        ASSERT_EQ(cache.read(position, count, buffer.data()), static_cast<long>(expected.size()));
        ASSERT_EQ(buffer.substr(0, expected.size()), expected) << piece << ' ' << position;
      }
  }
}

TEST_F(PayloadCacheTest, ReadingBehindTheEndGivesNothing)
{
  PayloadCache cache({folder.path()});
  char byte = 0;
  EXPECT_EQ(cache.read(0, 1, &byte), 0);
  ASSERT_TRUE(fill(cache, "abc", 3));
  EXPECT_EQ(cache.read(2, 1, &byte), 1);
  EXPECT_EQ(byte, 'c');
  EXPECT_EQ(cache.read(3, 1, &byte), 0);
  EXPECT_EQ(cache.read(1000, 1, &byte), 0);
}

TEST_F(PayloadCacheTest, ClearedItIsAsNew)
{
  PayloadCache cache({folder.path()});
  ASSERT_TRUE(fill(cache, manyBytes(2 * MOST), 65536));
  ASSERT_TRUE(cache.inFile());
  cache.clear();
  EXPECT_FALSE(cache.inFile());
  EXPECT_EQ(cache.size(), 0U);
  ASSERT_TRUE(fill(cache, "small", 5));
  EXPECT_EQ(contentOf(cache), "small");
}

TEST_F(PayloadCacheTest, TheNextFolderIsTakenWhenOneLetsNoFileBeMade)
{
  PayloadCache cache({folder / "missing", folder.path()});
  ASSERT_TRUE(fill(cache, manyBytes(2 * MOST), 65536));
  EXPECT_TRUE(cache.inFile());
  EXPECT_TRUE(
      log.has(4, "PayloadCache::moveToFile",
              "No temporary file in " + (folder / "missing") + ": No such file or directory (2)"))
      << log.text();
}

TEST_F(PayloadCacheTest, WithoutAnyFolderMemoryHoldsIt)
{
  PayloadCache cache({folder / "missing"});
  std::string const bytes = manyBytes(2 * MOST);
  ASSERT_TRUE(fill(cache, bytes, 65536));
  EXPECT_FALSE(cache.inFile());
  EXPECT_TRUE(contentOf(cache) == bytes);
  EXPECT_EQ(log.count(1, "PayloadCache::moveToFile",
                      "No temporary file for collection data, keeping it in memory"),
            1)
      << log.text();
  EXPECT_NE(log.text().find("(PayloadCache:"), std::string::npos) << log.text();
}

TEST_F(PayloadCacheTest, AFullDiskBringsItBackToMemory)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(3 * MOST);
  {
    FileLimit const limit(2 * MOST + 1000); // in the middle of a piece
    ASSERT_TRUE(fill(cache, bytes, 65536));
  }
  EXPECT_FALSE(cache.inFile());
  EXPECT_TRUE(contentOf(cache) == bytes);
  EXPECT_TRUE(log.has(1, "PayloadCache::append",
                      "Failed to write collection data to a temporary file, keeping it in "
                      "memory: File too large (27)"))
      << log.text();
}

TEST_F(PayloadCacheTest, ADiskThatIsFullFromTheStartMakesNoFile)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(2 * MOST);
  {
    FileLimit const limit(1000);
    ASSERT_TRUE(fill(cache, bytes, 65536));
  }
  EXPECT_FALSE(cache.inFile());
  EXPECT_TRUE(contentOf(cache) == bytes);
}

TEST_F(PayloadCacheTest, TheChosenFolderComesFirst)
{
  setenv("TMPDIR", folder.path().c_str(), 1);
  EXPECT_EQ(PayloadCache::temporaryFolders().front(), folder.path());
  setenv("TMPDIR", "not/absolute", 1);
  EXPECT_EQ(PayloadCache::temporaryFolders().front(), "/var/tmp");
  unsetenv("TMPDIR");
  EXPECT_EQ(PayloadCache::temporaryFolders().front(), "/var/tmp");
}

// The disk is full, and what it holds cannot be read back: a piece is lost, and
// what is appended later must not stand behind the hole.
TEST_F(PayloadCacheTest, AfterALostPieceNothingIsTakenAndNothingIsRead)
{
  PayloadCache cache({folder.path()});
  std::string const bytes = manyBytes(2 * MOST);
  ASSERT_TRUE(fill(cache, bytes, 65536));
  ASSERT_TRUE(cache.inFile());
  {
    SystemCalls const full(folder.path(), [](std::string const& call)
                           { return call.starts_with("pwrite") ? ENOSPC : EIO; });
    EXPECT_FALSE(cache.append("lost", 4));
  }
  EXPECT_TRUE(log.has(1, "PayloadCache::append",
                      "Failed to read collection data back from the temporary file"))
      << log.text();
  EXPECT_FALSE(cache.append("later", 5)) << "there is room again, but the piece is gone";
  EXPECT_FALSE(cache.append(makePiece(bytes), bytes.size()));
  char byte = 0;
  EXPECT_EQ(cache.read(0, 1, &byte), -1);
  EXPECT_EQ(cache.read(bytes.size(), 1, &byte), -1) << "not the end either";

  cache.clear();
  ASSERT_TRUE(cache.append("new", 3));
  EXPECT_EQ(contentOf(cache), "new");
}
