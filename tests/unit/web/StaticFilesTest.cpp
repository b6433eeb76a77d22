// Which files of a folder are served, and as what.

#include "tests/support/TempDir.h"
#include "web/StaticFiles.h"

#include <gmock/gmock.h>

#include <filesystem>

using namespace Web;
namespace fs = std::filesystem;

namespace
{

class StaticFilesTest : public testing::Test
{
protected:
  void write(std::string const& name, std::string const& text) const
  {
    fs::path const path = m_folder.path() + '/' + name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }

  bool read() { return m_files.read(m_folder.path(), m_error); }

  TempDir m_folder;
  StaticFiles m_files;
  std::string m_error;
};

} // namespace

TEST_F(StaticFilesTest, FilesAreFoundByTheirPathBelowTheFolder)
{
  write("index.html", "<p>");
  write("help/index.html", "<b>");
  write("help/a.js", "1");
  ASSERT_TRUE(read()) << m_error;
  EXPECT_EQ(m_files.count(), 3U);
  EXPECT_EQ(*m_files.find("")->body, "<p>");
  EXPECT_EQ(*m_files.find("index.html")->body, "<p>");
  EXPECT_EQ(*m_files.find("help/")->body, "<b>");
  EXPECT_EQ(*m_files.find("help/a.js")->body, "1");
  EXPECT_TRUE(m_files.find("")->isPage);
  for (char const* path : {"help", "a.js", "/index.html", "help/../index.html", "./index.html"})
    EXPECT_EQ(m_files.find(path), nullptr) << path;
}

// A browser runs no script of another type, with nosniff.
TEST_F(StaticFilesTest, EachHasTheTypeOfItsName)
{
  write("a.html", "");
  write("a.css", "");
  write("a.js", "");
  write("a.svg", "");
  write("a.other", "");
  ASSERT_TRUE(read()) << m_error;
  EXPECT_EQ(m_files.find("a.html")->type, "text/html; charset=utf-8");
  EXPECT_EQ(m_files.find("a.css")->type, "text/css; charset=utf-8");
  EXPECT_EQ(m_files.find("a.js")->type, "text/javascript; charset=utf-8");
  EXPECT_EQ(m_files.find("a.svg")->type, "image/svg+xml");
  EXPECT_EQ(m_files.find("a.other")->type, "application/octet-stream");
}

TEST_F(StaticFilesTest, HiddenFilesAndLinksAreLeftOut)
{
  write("a.js", "1");
  write(".secret", "2");
  write(".git/config", "3");
  fs::create_symlink("/etc/passwd", m_folder.path() + "/link.txt");
  fs::create_directory_symlink("/etc", m_folder.path() + "/folder");
  ASSERT_TRUE(read()) << m_error;
  EXPECT_EQ(m_files.count(), 1U);
  EXPECT_NE(m_files.find("a.js"), nullptr);
}

TEST_F(StaticFilesTest, ThereIsABoundToAllOfThem)
{
  write("a.js", "1");
  write("large.png", std::string(std::size_t(16) << 20, 'x'));
  EXPECT_FALSE(read());
  EXPECT_THAT(m_error, testing::HasSubstr(m_folder.path()));
}

TEST_F(StaticFilesTest, AFolderThatIsNotThereIsToldOf)
{
  EXPECT_FALSE(m_files.read(m_folder.path() + "/missing", m_error));
  EXPECT_THAT(m_error, testing::HasSubstr("missing: No such file"));
}
