// Text of others that a terminal, or whoever reads it, would take for something
// else.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;

// A control of U+0080 to U+009F, the deletion, an override of the writing
// direction, marks, isolates and the separator of lines.
std::vector<std::string> const HARMFUL{
    "\xC2\x9B", "\x7F", "\xE2\x80\xAE", "\xE2\x80\x8F", "\xE2\x81\xA6", "\xE2\x80\xA8", "\xD8\x9C"};

std::string allHarmful()
{
  std::string text = "a";
  for (std::string const& each : HARMFUL)
    text += each + "b";
  return text;
}

class TqdiscoctlEscapesTest : public CommandTest
{
protected:
  void SetUp() override
  {
    CommandTest::SetUp();
    std::string const text = allHarmful();
    store(text, "disks",
          "<DiscoveredItems><DISCOVERED Name=\"" + text + "\"><StatusMsg><Code>3</Code><Text>" +
              text + "</Text></StatusMsg><ExplorerData Name=\"x\"><Size>" + text +
              "</Size></ExplorerData></DISCOVERED></DiscoveredItems>");
  }

  static void expectHarmless(std::string const& text, Words const& words)
  {
    for (std::string const& each : HARMFUL)
      EXPECT_EQ(text.find(each), std::string::npos) << words[0] << '\n' << text;
  }
};

} // namespace

TEST_F(TqdiscoctlEscapesTest, noCommandLetsThemThrough)
{
  std::string const text = allHarmful();
  store(text, "volumes", "<DiscoveredItems/>");
  for (Words const& words : {Words{"query"},
                             Words{"query", "--json"},
                             Words{"hosts"},
                             Words{"hosts", "--json"},
                             Words{"items"},
                             Words{"items", "--details"},
                             Words{"items", "--json"},
                             Words{"status"},
                             Words{"status", "--json"},
                             Words{"show", text, "disks"},
                             Words{"show", text, "disks", "--json"},
                             Words{"show", text, "disks", "--xml"},
                             Words{"show", "*", "*", "--where", text},
                             Words{"show", text, "*"},
                             Words{"show", text, text},
                             Words{"query", "--type", text},
                             Words{"watch", "--looks", "1"},
                             Words{"filters", text, "disks"},
                             Words{"db", "list"},
                             Words{"db", "list", "--json"},
                             Words{"db", "verify"},
                             Words{"db", "show", text, text},
                             Words{"db", "show", text, "disks"},
                             Words{"db", "forget", text, "--dry-run"},
                             Words{"push", "--host", text, "--timeout", "2"},
                             Words{"put", text, "disks", m_service / "payload"}})
  {
    Outcome const outcome = run(words);
    expectHarmless(outcome.output + outcome.errors, words);
  }
  expectHarmless(m_service.log(), {"the service's log"});
}

TEST_F(TqdiscoctlEscapesTest, whatIsShownSaysWhatItWas)
{
  std::string const text = allHarmful();
  auto const records = runJson({"query"});
  ASSERT_EQ(records.size(), 1U);
  // Controls are escaped in the name itself, as in the database.
  std::string const subject = records[0]["subject"];
  EXPECT_NE(subject.find("\xE2\x80\xAE"), std::string::npos);
  EXPECT_EQ(run({"show", text, "disks"}).exitCode, 0);
  EXPECT_EQ(run({"show", subject, "disks"}).exitCode, 0);
  auto const items = runJson({"items"});
  EXPECT_EQ(items[0]["items"][0]["facts"]["Size"], text);
  EXPECT_NE(run({"query"}).output.find("%E2%80%AE"), std::string::npos);
  EXPECT_NE(run({"items", "--json"}).output.find("\\u202E"), std::string::npos);
  EXPECT_NE(run({"show", text, "disks", "--xml"}).output.find("&#8238;"), std::string::npos);
}
