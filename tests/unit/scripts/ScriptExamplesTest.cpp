// The scripts of docs/writing-a-script.md do what the page says.

#include "scripts/ScriptPayload.h"
#include "scripts/ScriptRun.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::Scripts;

namespace
{

std::string const SCRIPTS = std::string(TQ_SOURCE_DIR) + "/examples/scripts/";

class ScriptExamplesTest : public testing::Test
{
protected:
  // As it lies in the folder, with its sidecar when it has one.
  std::vector<ScriptItem> run(std::string const& file)
  {
    ScriptFile script;
    Sidecar sidecar;
    RunStop const stop;
    EXPECT_TRUE(findScript(m_folder / file, script));
    EXPECT_THAT(examineScript(script, sidecar), testing::IsEmpty());
    RunOutcome const outcome = runScript(script, sidecar, "client7", stop);
    EXPECT_EQ(outcome.failure, "") << outcome.errors;
    std::vector<ScriptItem> items;
    std::string mistake;
    EXPECT_TRUE(parseScriptOutput(outcome.output, items, mistake)) << mistake;
    EXPECT_TRUE(obeysDescription(sidecar.facts, items, mistake)) << mistake;
    return items;
  }

  void copy(std::string const& file, unsigned mode)
  {
    std::filesystem::copy_file(SCRIPTS + file, m_folder / file);
    std::filesystem::permissions(m_folder / file, std::filesystem::perms(mode));
  }

  static std::map<std::string, OzfQuery::Type> kindsOf(ScriptItem const& item)
  {
    std::map<std::string, OzfQuery::Type> kinds;
    for (ScriptFact const& fact : item.facts)
      kinds[fact.name] = fact.kind;
    return kinds;
  }

  TempDir m_folder;
};

TEST_F(ScriptExamplesTest, thePageShowsTheFiles)
{
  std::string const page = readText(TQ_SOURCE_DIR "/docs/writing-a-script.md");
  for (auto const& [file, language] : std::map<std::string, std::string>{
           {"load.sh", "sh"}, {"load.conf", ""}, {"accounts.py", "python"}, {"memory.go", "go"}})
  {
    std::string const text = readText(SCRIPTS + file);
    ASSERT_FALSE(text.empty()) << file;
    EXPECT_NE(page.find("```" + language + "\n" + text + "```"), std::string::npos) << file;
  }
}

using Kind = OzfQuery::Type;

TEST_F(ScriptExamplesTest, theShellScriptTellsTheLoad)
{
  copy("load.sh", 0755);
  copy("load.conf", 0644);
  auto const items = run("load.sh");
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(kindsOf(items[0]), (std::map<std::string, Kind>{{"load1", Kind::NUMBER},
                                                            {"load5", Kind::NUMBER},
                                                            {"load15", Kind::NUMBER},
                                                            {"processes", Kind::NUMBER}}));
}

TEST_F(ScriptExamplesTest, thePythonScriptTellsTheAccounts)
{
  copy("accounts.py", 0755);
  auto const items = run("accounts.py");
  auto const root = std::find_if(items.begin(), items.end(),
                                 [](ScriptItem const& item) { return item.name == "root"; });
  ASSERT_NE(root, items.end());
  EXPECT_EQ(kindsOf(*root), (std::map<std::string, Kind>{{"uid", Kind::NUMBER},
                                                         {"home.path", Kind::TEXT},
                                                         {"home.exists", Kind::BOOLEAN},
                                                         {"login", Kind::BOOLEAN}}));
}

TEST_F(ScriptExamplesTest, theGoProgramTellsTheMemory)
{
  std::string const command =
      "gccgo-12 -static-libgo -o '" + (m_folder / "memory") + "' '" + SCRIPTS + "memory.go'";
  ASSERT_EQ(std::system(command.c_str()), 0) << "packaging/install-dependencies.sh installs it";
  auto const items = run("memory");
  ASSERT_EQ(items.size(), 1U);
  auto const total = std::find_if(items[0].facts.begin(), items[0].facts.end(),
                                  [](ScriptFact const& fact) { return fact.name == "total"; });
  ASSERT_NE(total, items[0].facts.end());
  EXPECT_EQ(std::stoul(total->value) / 1024, static_cast<unsigned long>(sysconf(_SC_PHYS_PAGES)) *
                                                 static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) /
                                                 1024);
}

} // namespace
