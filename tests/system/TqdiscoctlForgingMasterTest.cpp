// What a master can bring to the terminal of whoever asks it.

#include "tests/support/CommandTest.h"
#include "tests/support/FreePort.h"
#include "tests/support/HarmfulText.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;

class TqdiscoctlForgingMasterTest : public testing::Test
{
protected:
  void SetUp() override
  {
    std::filesystem::create_directories(m_root / "etc");
    writeText(m_root / "etc/tq.conf",
              "SERVER = 127.0.0.1\nCLIENT_NAME = forger\nORB_BIND = 127.0.0.1\n"
              "ORB_PORT.DiscoveryService = " +
                  std::to_string(m_port) + "\n");
    writeText(m_root / "payload", "<DiscoveredItems/>");
    m_master = std::make_unique<Process>(TQ_BIN_DIR "/forging_master", Words{m_root.path()});
    ASSERT_TRUE(
        eventually([this] { return m_master->output().find("serving") != std::string::npos; }))
        << m_master->errors();
  }

  Outcome run(Words const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, environment());
  }

  // What a terminal gets to see, without what the command itself does to it.
  std::string atTerminal(std::string const& words) const
  {
    std::string seen =
        runProgram("/usr/bin/script",
                   {"-qec", "stty cols 100; '" TQ_BIN_DIR "/tqdiscoctl' " + words, "/dev/null"},
                   environment())
            .output;
    for (std::string const own :
         {"\033[1m", "\033[0m", "\033[32m", "\033[31m", "\033[33m", "\r\033[K", "\r\n"})
      for (std::size_t at; (at = seen.find(own)) != std::string::npos;)
        seen.replace(at, own.size(), own == "\r\n" ? "\n" : "");
    return seen;
  }

  TempDir m_root;

private:
  Process::Environment environment() const
  {
    return {{"TESSARINE_ROOT", m_root.path()}, {"LC_ALL", "C.UTF-8"}};
  }

  unsigned short const m_port = freePort();
  std::unique_ptr<Process> m_master;
};

} // namespace

TEST_F(TqdiscoctlForgingMasterTest, noCommandShowsWhatHarms)
{
  std::string const name = harmfulText();
  for (Words const& words : {Words{"status", "--details"},
                             Words{"status", "--json"},
                             Words{"query"},
                             Words{"query", "--json"},
                             Words{"query", "--filter-data"},
                             Words{"query", "--type", name},
                             Words{"hosts"},
                             Words{"hosts", "--json"},
                             Words{"items"},
                             Words{"items", "--json"},
                             Words{"items", "--json-lines", "--fact-list"},
                             Words{"items", "--details"},
                             Words{"items", "--columns", "Size"},
                             Words{"items", "--where", "nothing = 1"},
                             Words{"items", "--where", "nothing > 1 + nothing"},
                             Words{"items", "--where", name},
                             Words{"show", "*", "service"},
                             Words{"show", "*", "service", "--json"},
                             Words{"show", "*", "service", "--xml"},
                             Words{"show", "*", "bytes"},
                             Words{"show", name, "*"},
                             Words{"filters", "*", "*"},
                             Words{"filters", "*", "*", "--json"},
                             Words{"filters", "*", "*", "--xml"},
                             Words{"watch", "--looks", "1"},
                             Words{"put", name, name, m_root / "payload"},
                             Words{"push"},
                             Words{"push", "--json"},
                             Words{"push", "--now"},
                             Words{"push", "--all"},
                             Words{"push", "--host", name},
                             Words{"stop"},
                             Words{"tls", "check", "127.0.0.1"},
                             Words{"--master", name, "query"},
                             Words{name}})
  {
    Words all = words;
    all.emplace_back("-v");
    Outcome const outcome = run(all);
    std::string const title = words[0] + " " + words.back();
    // A document has lines of its own.
    EXPECT_EQ(harmIn(outcome.output, words.back() == "--xml"), "") << title << '\n'
                                                                   << outcome.output;
    EXPECT_EQ(harmIn(outcome.errors), "") << title << '\n' << outcome.errors;
    EXPECT_FALSE(outcome.output.empty() && outcome.errors.empty()) << title;
  }
}

TEST_F(TqdiscoctlForgingMasterTest, noCommandShowsItATerminal)
{
  // Only a pipe gets the bytes of what is no XML.
  std::string const bytes = atTerminal("show '*' bytes --xml");
  EXPECT_EQ(harmIn(bytes, true), "") << bytes;
  for (char const* const words :
       {"status", "status --details", "query", "hosts", "items", "items --details",
        "'show' '*' service", "show '*' bytes", "filters '*' '*'", "watch --looks 1", "push --now"})
  {
    std::string const seen = atTerminal(words);
    EXPECT_EQ(harmIn(seen), "") << words << '\n' << seen;
    EXPECT_FALSE(seen.empty()) << words;
  }
}

// The escapes of JSON give a program what the master has said.
TEST_F(TqdiscoctlForgingMasterTest, jsonTellsWhatItWas)
{
  auto const status = nlohmann::json::parse(run({"status", "--json"}).output);
  std::string said = harmfulXml();
  for (auto const& [reference, text] :
       {std::pair("&#10;", "\n"), std::pair("&#13;", "\r"), std::pair("&#9;", "\t")})
    said.replace(said.find(reference), std::string_view(reference).size(), text);
  EXPECT_EQ(status["services"][0]["service"]["facts"]["Reason"], said);
}
