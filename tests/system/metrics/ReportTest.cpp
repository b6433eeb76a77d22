// tqdiscoctl report beside a live service.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ReportTest : public CommandTest
{
protected:
  std::string const m_file = m_service / "fleet.html";

  Outcome report() const { return run({"report", "--html", m_file}); }

  // What explorers of another host have told.
  void tell(std::string const& host, std::string const& authority, std::string const& items) const
  {
    store(host, authority, itemsDocument(items), {"--type", "client"});
  }
};

std::string serviceItem(std::string const& host)
{
  return "<DISCOVERED Name=\"" + host +
         "\"><ExplorerData Name=\"service\"><Kind>service</Kind><Version>1</Version>"
         "</ExplorerData></DISCOVERED>";
}

std::string fileSystemItem(std::string const& path, std::string const& use)
{
  return "<DISCOVERED Name=\"" + path +
         "\"><ExplorerData Name=\"filesystem\"><Type>ext4</Type><Kind>local</Kind>"
         "<Options>rw</Options><Size>1000</Size><Available>70</Available><Use>" +
         use + "</Use></ExplorerData></DISCOVERED>";
}

TEST_F(ReportTest, tellsWhichHostsNeedALook)
{
  tell("well1", "service", serviceItem("well1"));
  tell("well1", "filesystem", fileSystemItem("/roomy", "20%"));
  tell("quiet2", "host", "");
  tell("poor3", "service",
       serviceItem("poor3") +
           "<DISCOVERED Name=\"software\"><ExplorerData Name=\"service\">"
           "<Kind>push</Kind><Type>client</Type>"
           "<LastResult>opening failed</LastResult></ExplorerData></DISCOVERED>");
  tell("poor3", "filesystem", fileSystemItem("/crowded", "97%"));
  mode_t const mask = umask(077);
  Outcome const outcome = report();
  umask(mask);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output + outcome.errors, IsEmpty());
  struct stat status
  {
  };
  ASSERT_EQ(stat(m_file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
  std::string const html = readText(m_file);
  EXPECT_THAT(html, HasSubstr("<b>3</b><span>hosts</span>"));
  EXPECT_THAT(html, HasSubstr("<bdi>quiet2</bdi>"));
  EXPECT_THAT(html, HasSubstr("<bdi>poor3</bdi>"));
  EXPECT_THAT(html, HasSubstr("<bdi>software</bdi>"));
  EXPECT_THAT(html, HasSubstr("<bdi>/crowded</bdi>"));
  EXPECT_THAT(html, Not(HasSubstr("roomy")));
  EXPECT_THAT(html, Not(HasSubstr("well1")));
  EXPECT_EQ(run({"report", "--html", "-"}).output.substr(0, 15), html.substr(0, 15));
}

TEST_F(ReportTest, hostileNamesAreText)
{
  for (std::string const& name :
       {std::string("<script>alert(1)</script>"), std::string("\u202Egnp.exe"), std::string("a\nb"),
        std::string(1000, 'h')})
    tell(name, "host", "");
  tell("well1", "service", serviceItem("well1"));
  EXPECT_EQ(report().exitCode, 0);
  std::string const html = readText(m_file);
  EXPECT_THAT(html, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;"));
  EXPECT_THAT(html, Not(HasSubstr("<script")));
  EXPECT_THAT(html, Not(HasSubstr("\u202E")));
  EXPECT_THAT(html, HasSubstr("<b>4</b><span>silent</span>"));
}

TEST_F(ReportTest, saysWhatCouldNotBeRead)
{
  tell("poor3", "filesystem", fileSystemItem("/crowded", "97%"));
  store("poor4", "filesystem", "no XML", {"--type", "client", "--unchecked"});
  Outcome const outcome = report();
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.errors, HasSubstr("1 discovery could not be read"));
  EXPECT_THAT(readText(m_file), HasSubstr("1 discovery could not be read"));
  EXPECT_THAT(readText(m_file), HasSubstr("/crowded"));
}

TEST_F(ReportTest, aFileThatCannotBeWrittenIsAFailure)
{
  Outcome const outcome = run({"report", "--html", m_service / "missing/fleet.html"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("missing/fleet.html: No such file or directory"));
  EXPECT_EQ(run({"report"}).exitCode, 2);
}

} // namespace
