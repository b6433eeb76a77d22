// What is installed is enough to build on: the programs run from there, and
// programs and plug-ins outside the tree are compiled against it, found with
// CMake or with pkg-config, and work with a running service.

#include "tests/support/LiveService.h"
#include "tests/support/RunPaths.h"

#include <gmock/gmock.h>

#include <regex>
#include <set>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;
using Words = std::vector<std::string>;

constexpr char PREFIX[] = "/opt/product";
constexpr std::chrono::minutes COMPILER_LIMIT(4);

// Installs the build under test below a folder of its own, as packages are
// made, so that nothing can lie where it was configured to lie.
class InstalledTreeTest : public testing::Test
{
protected:
  void SetUp() override
  {
    run(TQ_CMAKE, {"--install", TQ_BINARY_DIR, "--prefix", PREFIX}, {{"DESTDIR", m_root}});
    // The folder depends on the platform and on how the build was configured.
    for (auto const& entry : fs::recursive_directory_iterator(m_root))
      if (entry.path().filename() == "tqdiscovery.pc")
        m_module = entry.path();
    ASSERT_NE(m_module, "") << "no pkg-config module was installed";
  }

  // Runs a tool that has to succeed; what it wrote to standard output.
  static std::string run(std::string const& path, Words const& words,
                         Process::Environment const& environment = {})
  {
    Process process(path, words, environment);
    EXPECT_TRUE(process.wait(COMPILER_LIMIT)) << path << " does not end";
    EXPECT_EQ(process.exitCode(), 0) << path << ":\n" << process.output() << process.errors();
    return process.output();
  }

  // A shell's command, in which pkg-config finds the installed module.
  std::string shell(std::string const& command) const
  {
    return run("/bin/sh", {"-c", command}, {{"PKG_CONFIG_PATH", m_module.parent_path()}});
  }

  // Builds a project outside the tree; the folder of what came out.
  std::string build(std::string const& source) const
  {
    std::string const folder = m_scratch / "build";
    run(TQ_CMAKE, {"-G", "Ninja", "-S", std::string(TQ_SOURCE_DIR "/") + source, "-B", folder,
                   "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_COMPILER=" TQ_CXX,
                   "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Wshadow -Werror " TQ_CXX_FLAGS,
                   "-DCMAKE_PREFIX_PATH=" + prefix()});
    run(TQ_CMAKE, {"--build", folder});
    return folder;
  }

  std::string prefix() const { return m_root + PREFIX; }
  std::string headers() const { return prefix() + "/include/tessarine"; }
  fs::path documents() const { return prefix() + "/share/doc/tessarine-discovery"; }

  TempDir m_scratch;
  std::string const m_root = m_scratch / "root";
  fs::path m_module;
};

// The same with a service that has two discoveries.
class ExampleProgramTest : public InstalledTreeTest
{
protected:
  void SetUp() override
  {
    InstalledTreeTest::SetUp();
    ASSERT_TRUE(m_service.start()) << m_service.log();
    store("web1", "disks",
          "<DISCOVERED Name=\"sda\"><ExplorerData Name=\"disks\"><Path>/dev/sda</Path>"
          "<Size>1024</Size></ExplorerData></DISCOVERED>"
          "<DISCOVERED Name=\"sdb\"><StatusMsg Code=\"13\" Severity=\"2\">no answer</StatusMsg>"
          "<ExplorerData Name=\"disks\"><Path>/dev/sdb</Path><Size>4096</Size></ExplorerData>"
          "</DISCOVERED>");
    store("web2", "racks",
          "<DISCOVERED Name=\"row 7\"><ExplorerData Name=\"racks\"><Height>42</Height>"
          "</ExplorerData></DISCOVERED>");
  }

  void store(std::string const& subject, std::string const& authority, std::string const& items)
  {
    std::string const file = m_scratch / "payload";
    writeText(file, "<DiscoveredItems>" + items + "</DiscoveredItems>");
    Outcome const outcome = m_service.tqdiscoctl({"put", subject, authority, file, "--unchecked"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

  Outcome read(std::string const& program, Words const& words) const
  {
    return runProgram(program, words,
                      {{"TESSARINE_ROOT", m_service.root()},
                       {"LD_LIBRARY_PATH", m_module.parent_path().parent_path()}});
  }

  void expectEverything(std::string const& program) const
  {
    Outcome const all = read(program, {});
    EXPECT_EQ(all.exitCode, 0) << all.errors;
    EXPECT_THAT(all.output,
                AllOf(HasSubstr("web1, disks: found 20"), HasSubstr("  sda\n    Path: /dev/sda\n"),
                      HasSubstr("    Size: 1024\n"), HasSubstr("  sdb\n"),
                      HasSubstr("    status 13: no answer\n"), HasSubstr("web2, racks: found 20"),
                      HasSubstr("  row 7\n    Height: 42\n")));
  }

  LiveService m_service;
};

} // namespace

TEST_F(InstalledTreeTest, theProgramsRunWhereverTheTreeIsPut)
{
  for (std::string const program : {"tqdisco", "tqdiscoctl"})
    EXPECT_THAT(run(prefix() + "/bin/" + program, {"--version"}), HasSubstr(TQ_VERSION));
}

TEST_F(InstalledTreeTest, nothingLoadsFromTheWorkingDirectoryOrFromOutsideTheTree)
{
  std::size_t files = 0;
  EXPECT_EQ(flawsOfRunPaths(prefix(), files), "");
  EXPECT_GE(files, 5U);
}

// Its folder, given by the user, is the only one that is written to.
TEST_F(InstalledTreeTest, thePrefixHoldsForEverything)
{
  for (auto const& entry : fs::directory_iterator(m_root))
    EXPECT_EQ(entry.path().filename(), "opt");
  EXPECT_TRUE(fs::exists(prefix() + "/kestrel/tessarine/lib/libtqexplorer.so"));
  EXPECT_TRUE(fs::exists(prefix() + "/kestrel/tessarine/etc/tq.conf.sample"));
  // Whoever makes a configuration of it copies this, too.
  EXPECT_EQ(fs::status(prefix() + "/kestrel/tessarine/etc/tq.conf.sample").permissions(),
            fs::perms(0640));
  EXPECT_THAT(readText(prefix() + "/lib/systemd/system/tqdisco.service"),
              HasSubstr(std::string("ExecStart=") + PREFIX + "/bin/tqdisco\n"));
}

#ifdef TQ_PLAIN_BUILD
TEST_F(InstalledTreeTest, programsAreStrippedAndTheirDebugDataLiesApart)
{
  std::size_t files = 0;
  for (fs::path const& folder : {fs::path(prefix() + "/bin"), m_module.parent_path().parent_path(),
                                 fs::path(prefix() + "/kestrel/tessarine/lib")})
    for (auto const& entry : fs::directory_iterator(folder))
    {
      if (!entry.is_regular_file() || entry.is_symlink())
        continue;
      ++files;
      std::string const apart =
          prefix() + "/lib/debug" + entry.path().string().substr(m_root.size()) + ".debug";
      EXPECT_THAT(shell("readelf -S '" + entry.path().string() + "'"),
                  AllOf(HasSubstr(".gnu_debuglink"), Not(HasSubstr(".debug_info")),
                        Not(HasSubstr(".symtab"))));
      EXPECT_THAT(shell("readelf -S '" + apart + "'"), HasSubstr(".debug_info"));
    }
  EXPECT_EQ(files, 7U);
}
#endif

TEST_F(InstalledTreeTest, namesNoFolderOfTheSourcesOrTheBuild)
{
  std::size_t read = 0;
  for (auto const& entry : fs::recursive_directory_iterator(m_root))
  {
    static std::set<fs::path> const kinds = {".cmake", ".pc", ".h", ".idl"};
    if (!kinds.contains(entry.path().extension()))
      continue;
    ++read;
    std::string const text = readText(entry.path());
    EXPECT_THAT(text, AllOf(Not(HasSubstr(TQ_SOURCE_DIR)), Not(HasSubstr(TQ_BINARY_DIR))))
        << entry.path();
  }
  EXPECT_GT(read, 40U);
}

TEST_F(InstalledTreeTest, hasEveryDocumentAndWhatTheDocumentsNameBesides)
{
  std::size_t documentCount = 0;
  std::size_t nameCount = 0;
  for (auto const& entry : fs::directory_iterator(TQ_SOURCE_DIR "/docs"))
  {
    if (entry.path().extension() != ".md")
      continue;
    ++documentCount;
    fs::path const installed = documents() / entry.path().filename();
    ASSERT_TRUE(fs::exists(installed)) << installed;
    std::string const text = readText(installed);
    std::regex const name("`([A-Za-z./-]*\\.md|(?:docs/)?example[A-Za-z./-]*)`");
    for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match)
    {
      ++nameCount;
      EXPECT_TRUE(fs::exists(documents() / (*match)[1].str()))
          << entry.path() << " names " << (*match)[1];
    }
  }
  EXPECT_GE(documentCount, 11U);
  EXPECT_GE(nameCount, 10U);
}

#ifdef TQ_PLAIN_BUILD
// Only there: it takes the compiler a while, and what the sanitizers add
// changes nothing of what compiles.
TEST_F(InstalledTreeTest, everyHeaderCompilesOnItsOwn)
{
  std::set<std::string> found;
  std::string list;
  for (auto const& entry : fs::recursive_directory_iterator(headers()))
    if (entry.path().extension() == ".h")
    {
      std::string const name = fs::relative(entry.path(), headers());
      found.insert(name);
      list += name + "\n";
    }
  EXPECT_THAT(found, testing::IsSupersetOf({"discovery/Researcher.h", "discovery/Explorer.h",
                                            "ozf/orb/Orb.h", "DiscoveryServiceC.h"}));
  writeText(m_scratch / "headers", list);
  shell("flags=$(pkg-config --cflags tqdiscovery) && xargs -P 2 -I {} " TQ_CXX
        " -std=c++20 -Wall -Wextra -Werror $flags -fsyntax-only -x c++ -include {} /dev/null < " +
        m_scratch / "headers");
}
#endif

TEST_F(InstalledTreeTest, thePluginOfTheManualIsBuiltAndLoaded)
{
  std::string const folder = build("docs/example-plugin");
  EXPECT_THAT(run(folder + "/uptime-test", {}), HasSubstr("up for "));
  std::string const plugin = folder + "/libtqplugin-uptime.so";
  LiveService service;
  std::string const place = service / "lib/plugins/libtqplugin-uptime.so";
  fs::copy_file(plugin, place);
  fs::permissions(place, fs::perms(0755));
  ASSERT_TRUE(service.start({{"LD_LIBRARY_PATH", m_module.parent_path().parent_path()}}))
      << service.log();
  EXPECT_TRUE(eventually(
      [&service] {
        return service.tqdiscoctl({"query", "-a", "uptime"}).exitCode == 0;
      },
      std::chrono::seconds(60)))
      << service.log();
  Outcome const shown = service.tqdiscoctl({"show", LiveService::NAME, "uptime", "-v"});
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("Uptime"));
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST_F(ExampleProgramTest, isBuiltWithCMakeAndReadsDiscoveries)
{
  std::string const program = build("examples/read-discoveries") + "/read-discoveries";
  expectEverything(program);

  Outcome const one = read(program, {"web*", "racks"});
  EXPECT_EQ(one.exitCode, 0) << one.errors;
  EXPECT_THAT(one.output, AllOf(HasSubstr("web2, racks"), Not(HasSubstr("web1"))));

  Outcome const large = read(program, {"--where", "Size > 2K", "web1"});
  EXPECT_EQ(large.exitCode, 0) << large.errors;
  EXPECT_THAT(large.output, AllOf(HasSubstr("/dev/sdb"), Not(HasSubstr("/dev/sda"))));

  Outcome const nothing = read(program, {"web3"});
  EXPECT_EQ(nothing.exitCode, 3);
  EXPECT_EQ(nothing.output, "");
  EXPECT_THAT(nothing.errors, HasSubstr("no discovery matches"));

  Outcome const query = read(program, {"--where", "Size >"});
  EXPECT_EQ(query.exitCode, 2);
  EXPECT_THAT(query.errors, HasSubstr("column 7: expected a value"));

  store("web4", "torn", "<DISCOVERED Name=\"first\"></DISCOVERED></Wrong>");
  Outcome const torn = read(program, {"web4"});
  EXPECT_EQ(torn.exitCode, 4);
  EXPECT_THAT(torn.output, HasSubstr("  first\n"));
  EXPECT_THAT(torn.errors, HasSubstr("could not be read to its end"));

  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  Outcome const alone = read(program, {});
  EXPECT_EQ(alone.exitCode, 1);
  EXPECT_THAT(alone.errors, HasSubstr("the master tqtestmaster could not be asked"));

  writeText(m_service / "etc/tq.conf", "CLIENT_NAME = web1\n");
  Outcome const lost = read(program, {});
  EXPECT_EQ(lost.exitCode, 1);
  EXPECT_THAT(lost.errors, HasSubstr("there is no SERVER in " + m_service / "etc/tq.conf"));
}

TEST_F(ExampleProgramTest, tellsWhichFileSystemsAreFull)
{
  std::string const program = build("examples/full-file-systems") + "/full-file-systems";
  store("web1", "filesystem",
        "<DISCOVERED Name=\"/\"><ExplorerData Name=\"filesystem\"><Use>80%</Use></ExplorerData>"
        "</DISCOVERED><DISCOVERED Name=\"/srv\"><ExplorerData Name=\"filesystem\">"
        "<Use>91%</Use><Available>10485760</Available></ExplorerData></DISCOVERED>");
  Outcome const full = read(program, {});
  EXPECT_EQ(full.exitCode, 0) << full.errors;
  EXPECT_EQ(full.output, "web1: /srv is at 91 %, 10 MiB are free\n");

  std::string const text =
      readText(TQ_SOURCE_DIR "/examples/full-file-systems/FullFileSystems.cpp");
  EXPECT_LE(occurrences(text, "\n"), 30U);
  EXPECT_NE(readText(TQ_SOURCE_DIR "/docs/reading-facts.md").find("```cpp\n" + text + "```"),
            std::string::npos);

  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  Outcome const alone = read(program, {});
  EXPECT_EQ(alone.exitCode, 1);
  EXPECT_THAT(alone.errors, HasSubstr("the master tqtestmaster could not be asked"));
}

TEST_F(ExampleProgramTest, isBuiltInOneLineWithPkgConfig)
{
  std::string const program = m_scratch / "read-discoveries";
  shell(TQ_CXX " -std=c++20 " TQ_CXX_FLAGS " " TQ_SOURCE_DIR
               "/examples/read-discoveries/ReadDiscoveries.cpp -o " +
        program + " $(pkg-config --cflags --libs tqdiscovery)");
  expectEverything(program);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}
