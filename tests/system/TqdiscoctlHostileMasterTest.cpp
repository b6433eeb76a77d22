// What a master that means no good can do to tqdiscoctl.

#include "tests/support/CommandTest.h"
#include "tests/support/FreePort.h"

#include <gmock/gmock.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// Answers whatever is asked at a port with answers that are cut in fragments, run
// into one another, belong to no request, or end anywhere.
class MixingMaster
{
public:
  MixingMaster(unsigned short port, std::uint32_t seed)
      : m_random(seed), m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    int const yes = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(port);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 || listen(m_fd, 50) != 0)
      ADD_FAILURE() << "no master: " << std::strerror(errno);
    m_thread = std::thread([this] { serve(); });
  }
  ~MixingMaster()
  {
    m_ended = true;
    m_thread.join();
    close(m_fd);
  }
  MixingMaster(MixingMaster const&) = delete;
  MixingMaster& operator=(MixingMaster const&) = delete;

  int answers() const { return m_answers; }

private:
  unsigned below(unsigned limit) { return static_cast<unsigned>(m_random()) % limit; }

  static bool readableSoon(int fd)
  {
    pollfd wait{fd, POLLIN, 0};
    return poll(&wait, 1, 20) == 1;
  }

  void serve()
  {
    std::vector<int> open;
    while (!m_ended)
    {
      if (readableSoon(m_fd))
        open.push_back(accept(m_fd, nullptr, nullptr));
      std::erase_if(open, [this](int fd) { return readableSoon(fd) && !answer(fd); });
    }
    for (int const fd : open)
      close(fd);
  }

  // False when the connection has ended; it is closed then.
  bool answer(int fd)
  {
    char request[4096];
    std::uint32_t id = 0;
    bool const asked = recv(fd, request, sizeof request, 0) >= 16;
    std::memcpy(&id, request + 12, asked ? sizeof id : 0);
    std::string const bytes = mixture(id);
    if (asked && send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0 && below(3) != 0)
    {
      ++m_answers;
      return true;
    }
    close(fd);
    return false;
  }

  std::string mixture(std::uint32_t id)
  {
    std::string all;
    for (unsigned left = 1 + below(6); left != 0; --left)
      all += message(below(4) == 0 ? id + 2 : id);
    if (below(4) == 0)
      all.resize(below(static_cast<unsigned>(all.size())));
    return all;
  }

  std::string message(std::uint32_t id)
  {
    enum : unsigned char
    {
      IS_REPLY = 1,
      IS_CANCEL = 2,
      IS_LOCATE_REPLY = 4,
      IS_CLOSE = 5,
      IS_PART = 7
    };
    unsigned char const types[] = {IS_REPLY, IS_REPLY, IS_REPLY,        IS_PART,
                                   IS_PART,  IS_CLOSE, IS_LOCATE_REPLY, IS_CANCEL};
    unsigned char const type = types[below(8)];
    bool const more = below(2) == 0 && type != IS_CLOSE;
    // The number, and then a status, contexts and results that are small numbers.
    std::string body;
    for (unsigned i = 0, words = type == IS_CLOSE ? 0 : 3 + 2 * below(10); i < words; ++i)
      body += word(i == 0 ? id : below(3));
    std::string head = "GIOP\1";
    head += static_cast<char>(below(8) == 0 ? below(3) : 2);
    head += static_cast<char>(more ? 3 : 1);
    head += static_cast<char>(type);
    return head +
           word(static_cast<std::uint32_t>(body.size() + (below(8) == 0 ? below(9000) : 0))) + body;
  }

  static std::string word(std::uint32_t value)
  {
    return std::string(reinterpret_cast<char const*>(&value), sizeof value);
  }

  std::mt19937 m_random;
  int const m_fd;
  std::atomic<bool> m_ended{false};
  std::atomic<int> m_answers{0};
  std::thread m_thread;
};

class TqdiscoctlHostileMasterTest : public testing::Test
{
protected:
  TqdiscoctlHostileMasterTest() : m_port(freePort())
  {
    std::filesystem::create_directories(m_root / "etc");
    writeText(m_root / "etc/tq.conf",
              "SERVER = 127.0.0.1\nCLIENT_NAME = evil\nORB_BIND = 127.0.0.1\n"
              "ORB_PORT.DiscoveryService = " +
                  std::to_string(m_port) + "\n");
  }

  // number 0: without end. more: what collections are made of, and after how many
  // lists they have no end.
  void serve(std::string const& number, std::string const& inAPage, std::string const& pause,
             Words const& more = {})
  {
    Words words{m_root.path(), number, inAPage, pause};
    words.insert(words.end(), more.begin(), more.end());
    m_master = std::make_unique<Process>(TQ_BIN_DIR "/hostile_master", words);
    ASSERT_TRUE(
        eventually([this] { return m_master->output().find("serving") != std::string::npos; }))
        << m_master->errors();
  }

  Outcome run(Words const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", m_root.path()}});
  }

  TempDir m_root;
  unsigned short const m_port;
  std::unique_ptr<Process> m_master;
};

constexpr long MOST_MEMORY = 256; // MiB

// What a command took in its life; the sanitizers have memory of their own.
void expectMemoryBelow([[maybe_unused]] long mebibytes)
{
#ifdef TQ_PLAIN_BUILD
  EXPECT_LT(largestChild(), mebibytes);
#endif
}

void expectFullTable(Outcome const& outcome)
{
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("these are more items than one table takes: "),
                                    HasSubstr(" of 300 collections were not read")));
}

} // namespace

TEST_F(TqdiscoctlHostileMasterTest, everyCommandEndsInTimeHoweverLongTheListIs)
{
  serve("0", "1", "20");
  for (Words const& words : {Words{"query", "--json"}, Words{"items"},
                             Words{"filters", "host1", "service"}, Words{"watch"}})
  {
    Words all{"--timeout", "1"};
    all.insert(all.end(), words.begin(), words.end());
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = run(all);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << words[0];
    EXPECT_EQ(outcome.exitCode, 1) << words[0];
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr("gave up after 1 second"), HasSubstr("--timeout")))
        << words[0];
  }
}

TEST_F(TqdiscoctlHostileMasterTest, collectionsThatDoNotEndAreGivenUpInTime)
{
  serve("2", "1", "20");
  for (Words const& words : {Words{"items"}, Words{"show", "host1", "service", "--raw"}})
  {
    Words all{"--timeout", "1"};
    all.insert(all.end(), words.begin(), words.end());
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = run(all);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << words[0];
    EXPECT_EQ(outcome.exitCode, 1) << words[0] << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("gave up after 1 second")) << words[0];
  }
}

TEST_F(TqdiscoctlHostileMasterTest, aMillionRecordsAreMoreThanACommandTakes)
{
  serve("1000000", "5000", "0");
  Outcome const outcome = run({"query", "--json"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("choose with --subject"), Not(HasSubstr("gave up"))));
  expectMemoryBelow(MOST_MEMORY);
}

TEST_F(TqdiscoctlHostileMasterTest, listsThatAreTakenCostNoMore)
{
  serve("60000", "5000", "0");
  for (Words const& words : {Words{"query"}, Words{"hosts", "--json"}})
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << words[0] << outcome.errors;
    EXPECT_GE(occurrences(outcome.output, "host5999"), 11U) << words[0];
  }
  expectMemoryBelow(MOST_MEMORY);
}

TEST_F(TqdiscoctlHostileMasterTest, answersThatAreMixedUpHarmNoCommand)
{
  MixingMaster const master(m_port, 1);
  for (int i = 0; i < 10; ++i)
  {
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = run({"--timeout", "1", i % 2 == 0 ? "query" : "hosts"});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15)) << i;
    // Whether there is a service at all depends on what comes first.
    EXPECT_THAT(outcome.exitCode, testing::AnyOf(1, 5)) << i << outcome.output << outcome.errors;
    EXPECT_FALSE(outcome.errors.empty()) << i;
  }
  EXPECT_GT(master.answers(), 3);
}

TEST_F(TqdiscoctlHostileMasterTest, aTableTakesSoManyItemsAndShowsThem)
{
  serve("300", "100", "0", {"items"});
  Outcome const outcome = run({"items"});
  expectFullTable(outcome);
  EXPECT_THAT(outcome.output, HasSubstr("a0_0"));
  expectMemoryBelow(MOST_MEMORY);
}

// What a status says counts, too, and no table shows it.
TEST_F(TqdiscoctlHostileMasterTest, aTableTakesSoMuchTextOfStatus)
{
  serve("300", "100", "0", {"statuses"});
  Outcome const outcome = run({"items"});
  expectFullTable(outcome);
  expectMemoryBelow(MOST_MEMORY);
}

// Each of the facts has the names of all the elements around it.
TEST_F(TqdiscoctlHostileMasterTest, anItemWithTooMuchOfFactsKeepsItsText)
{
  serve("1", "1", "0", {"paths"});
  EXPECT_EQ(run({"items", "--count"}).output, "1\n");
  auto const shown = nlohmann::json::parse(run({"show", "host0", "service", "--json"}).output);
  EXPECT_EQ(shown["complete"], true);
  EXPECT_EQ(shown["items"][0]["facts"], nlohmann::json::object());
  EXPECT_THAT(shown["items"][0]["text"].get<std::string>(), HasSubstr("nnn><a"));
  expectMemoryBelow(MOST_MEMORY);
}

// Each of them is by another authority, and described at length.
TEST_F(TqdiscoctlHostileMasterTest, descriptionsThatAreKeptTakeSoMuchMemory)
{
  serve("60", "60", "0", {"described"});
  Outcome const outcome = run({"items", "--json"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(occurrences(outcome.output, "\"Colour\": "), 60U);
  expectMemoryBelow(70); // kept they would take 16 MiB, all of them 60
}

TEST_F(TqdiscoctlHostileMasterTest, filtersTakeSoManyAttributesAndShowThem)
{
  serve("300", "100", "0", {"attributes"});
  for (Words const& words :
       {Words{"filters", "*", "service", "--json"}, Words{"filters", "*", "service", "--xml"},
        Words{"filters", "*", "service"}})
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
    EXPECT_THAT(outcome.errors,
                HasSubstr("this is not all: more can be asked for than this command takes"));
    EXPECT_THAT(outcome.output, HasSubstr("_0"));
  }
  expectMemoryBelow(MOST_MEMORY);
}

// What has come by the end of the time is shown.
TEST_F(TqdiscoctlHostileMasterTest, filtersShowWhatCameInTime)
{
  serve("300", "100", "100", {"few"});
  Outcome const outcome = run({"filters", "*", "service", "--timeout", "4"});
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("out of time: not all that can be asked for was read"));
  EXPECT_THAT(outcome.output, HasSubstr("_0"));
}

TEST_F(TqdiscoctlHostileMasterTest, statusTakesSoManyHostsAndTellsOfThem)
{
  serve("300", "100", "0", {"items"});
  Outcome const outcome = run({"status"});
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("this is more than one status takes: "));
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("lists 300 discoveries"), HasSubstr("host299")));
  expectMemoryBelow(MOST_MEMORY);
}

// A watch looks twice each time: at what there is, and which services tell of
// themselves.
TEST_F(TqdiscoctlHostileMasterTest, aWatchThatCannotFindTheServicesSaysWhy)
{
  serve("3", "5000", "0", {"items", "2"});
  Outcome const outcome = run({"watch", "--looks", "2", "--interval", "1"});
  EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("of records, which is more than this command takes"));
}

TEST_F(TqdiscoctlHostileMasterTest, laterLooksOfAWatchEndInTimeAsTheFirst)
{
  serve("3", "1", "20", {"items", "3"});
  auto const begin = std::chrono::steady_clock::now();
  Outcome const outcome = run({"watch", "--timeout", "5", "--interval", "1"});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("Watching 3 discoveries"), HasSubstr("gave up after 5 seconds")));
}

TEST_F(TqdiscoctlHostileMasterTest, laterLooksOfAWatchTakeNoMoreMemoryThanTheFirst)
{
  serve("3", "5000", "0", {"items", "3"});
  Outcome const outcome = run({"watch", "--looks", "2", "--interval", "1"});
  EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
  EXPECT_THAT(outcome.errors,
              AllOf(HasSubstr("Watching 3 discoveries"),
                    HasSubstr("of records, which is more than this command takes")));
  expectMemoryBelow(MOST_MEMORY);
}
