#include "ozf/log/Logger.h"

#include "ozf/base/Report.h"
#include "ozf/log/FrameworkLogger.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "LoggerTest";

// A whole line as the sinks write it, around the expression for its end.
testing::Matcher<std::string const&> isLine(std::string const& end)
{
  return testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
                               "[+-][0-9]{2}:[0-9]{2} unit_ozf_log\\[" +
                               std::to_string(getpid()) + "\\] " + end);
}

} // namespace

TEST(LoggerFactory, AnOriginatorHasOneLogger)
{
  OzfLogger* const logger = LoggerFactory::getLogger(400);
  EXPECT_EQ(logger->originator(), 400);
  EXPECT_EQ(LoggerFactory::getLogger(400), logger);
  EXPECT_NE(LoggerFactory::getLogger(401), logger);
}

TEST(LoggerFactory, TheLevelIsOneAtFirstAndHoldsForAll)
{
  EXPECT_EQ(LoggerFactory::getLevel(), 1);
  OzfLogger const* const logger = LoggerFactory::getLogger(400);
  EXPECT_TRUE(logger->admits(1));
  EXPECT_FALSE(logger->admits(2));
  LoggerFactory::setLevel(4);
  EXPECT_TRUE(logger->admits(4));
  EXPECT_FALSE(LoggerFactory::getLogger(401)->admits(5));
  LoggerFactory::setLevel(0);
  EXPECT_FALSE(logger->admits(1));
}

TEST(LoggerFactory, LinesGoToStandardErrorAtFirst)
{
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(1, "Room::operation", "the text (Source:7)");
  std::string const line = testing::internal::GetCapturedStderr();
  EXPECT_THAT(line, isLine("1 Room::operation: the text \\(Source:7\\)\n"));
}

TEST(LoggerFactory, AFileReceivesTheSameLayout)
{
  TempDir temp;
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(4, "Room::operation", "detail");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  LoggerFactory::flush();
  std::string const line = readText(temp / "tq.log");
  EXPECT_THAT(line, isLine("4 Room::operation: detail\n"));
}

TEST(LoggerFactory, AFileThatIsMadeIsNotForOthersWhateverTheUmask)
{
  TempDir temp;
  mode_t const before = umask(0);
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "made/tq.log", reason)) << reason;
  umask(before);
  EXPECT_EQ(std::filesystem::status(temp / "made").permissions(), std::filesystem::perms(0750));
  EXPECT_EQ(std::filesystem::status(temp / "made/tq.log").permissions(),
            std::filesystem::perms(0640));
}

TEST(LoggerFactory, AFileIsAppendedTo)
{
  TempDir temp;
  writeText(temp / "tq.log", "from before\n");
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
  LoggerFactory::getLogger(400)->write(1, "o", "new");
  LoggerFactory::flush();
  EXPECT_THAT(readText(temp / "tq.log"), testing::StartsWith("from before\n"));
}

TEST(LoggerFactory, AFileThatCannotBeOpenedChangesNothing)
{
  TempDir temp;
  writeText(temp / "file", "x");
  LoggerFactory::setStderr();
  std::string reason;
  EXPECT_FALSE(LoggerFactory::setFile(temp / "file/tq.log", reason));
  EXPECT_THAT(reason, testing::HasSubstr(temp / "file/tq.log"));
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(1, "o", "still here");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("still here"));
}

TEST(LoggerFactory, AFullFileRotatesAndFiveOldOnesStay)
{
  TempDir temp;
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
  std::string const text(1024 * 1024, 'x');
  for (int i = 0; i < 75; ++i)
    LoggerFactory::getLogger(400)->write(1, "o", text);
  LoggerFactory::flush();
  for (auto const& entry : std::filesystem::directory_iterator(temp.path()))
    EXPECT_LE(entry.file_size(), 10u * 1024 * 1024) << entry.path();
  EXPECT_TRUE(std::filesystem::exists(temp / "tq.5.log"));
  EXPECT_FALSE(std::filesystem::exists(temp / "tq.6.log"));
}

TEST(LoggerFactory, StandardErrorCanBeChosenAgain)
{
  TempDir temp;
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
  LoggerFactory::setStderr();
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(1, "o", "back again");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("back again"));
  EXPECT_EQ(readText(temp / "tq.log"), "");
}

TEST(LoggerFactory, SyslogTakesTheLinesAwayFromStandardError)
{
  testing::internal::CaptureStderr();
  LoggerFactory::setSyslog("unit_ozf_log");
  LoggerFactory::setSyslog("unit_ozf_log");
  LoggerFactory::getLogger(400)->write(6, "LoggerTest", "a line for syslog");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LoggerFactory, ReceivesTheReportsOfTheRoomsBelow)
{
  LoggerFactory::getLogger(400);
  LogCapture log(1);
  report(1, "OzfTask::svc", "it ended");
  report(4, "OzfTask::svc", "not admitted");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].originator, FRAMEWORK_ORIGINATOR);
  EXPECT_EQ(log.lines()[0].level, 1);
  EXPECT_EQ(log.lines()[0].operation, "OzfTask::svc");
  EXPECT_EQ(log.lines()[0].text, "it ended");
}

TEST(OzfLogger, OneLineStaysOneLine)
{
  LogCapture log;
  LoggerFactory::getLogger(400)->write(1, "o", "a\nb\r\t\x1b[31m\x7f\xc2\x9b\xff \xc3\xa4%s{}");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].text, R"(a\x0Ab\x0D\x09\x1B[31m\x7F\xC2\x9B\xFF )"
                                 "\xc3\xa4%s{}");
}

TEST(OzfLogger, ALineReadsAsItIs)
{
  LogCapture log;
  LoggerFactory::getLogger(400)->write(1, "o", "a\xE2\x80\xAEz\xE2\x80\xA8y\xD8\x9C");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].text, R"(a\xE2\x80\xAEz\xE2\x80\xA8y\xD8\x9C)");
}

TEST(OzfLogger, TheTextIsNeverAFormat)
{
  LoggerFactory::setStderr();
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(1, nullptr, "{} {0} %v %s");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("1 : {} {0} %v %s\n"));
}

TEST(OzfLogger, AnExceptionOfAnObserverStaysInside)
{
  LoggerFactory::setObserver([](LogLine const&) { throw std::runtime_error("observer failed"); });
  testing::internal::CaptureStderr();
  LoggerFactory::getLogger(400)->write(1, "o", "text");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("observer failed"));
  LoggerFactory::setObserver({});
}

TEST(OzfLogger, ThreadsDoNotMixTheirLines)
{
  TempDir temp;
  std::string reason;
  ASSERT_TRUE(LoggerFactory::setFile(temp / "tq.log", reason)) << reason;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back(
          [i]
          {
            for (int line = 0; line < 500; ++line)
              LoggerFactory::getLogger(i)->write(1, "o",
                                                 std::string(200, static_cast<char>('a' + i)));
          });
  }
  LoggerFactory::flush();
  std::ifstream in(temp / "tq.log");
  auto const form = isLine("1 o: (a{200}|b{200}|c{200}|d{200})");
  int lines = 0;
  for (std::string line; std::getline(in, line); ++lines)
    ASSERT_THAT(line, form);
  EXPECT_EQ(lines, 2000);
}

TEST(OzfLog, AddsSourceAndLine)
{
  LogCapture log;
  OZF_LOG(LoggerFactory::getLogger(400), 4, SOURCE, "Room::operation", "Unable to open " << 7);
  int const line = __LINE__ - 1;
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, 4);
  EXPECT_EQ(log.lines()[0].originator, 400);
  EXPECT_EQ(log.lines()[0].operation, "Room::operation");
  EXPECT_EQ(log.lines()[0].text, "Unable to open 7 (LoggerTest:" + std::to_string(line) + ")");
  EXPECT_TRUE(log.has(4, "Room::operation", "Unable to open 7"));
}

TEST(OzfLog, BuildsTheTextOnlyWhenTheLevelAdmitsIt)
{
  LogCapture log(3);
  int built = 0;
  OZF_LOG(LoggerFactory::getLogger(400), 4, SOURCE, "o", ++built);
  EXPECT_EQ(built, 0);
  OZF_LOG(LoggerFactory::getLogger(400), 3, SOURCE, "o", ++built);
  EXPECT_EQ(built, 1);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(TraceScope, NotesEntryAndExitAtLevelSix)
{
  LogCapture log(6);
  {
    TraceScope const trace(LoggerFactory::getLogger(400), "Room::operation");
    EXPECT_EQ(log.lines().size(), 1u);
  }
  ASSERT_EQ(log.lines().size(), 2u);
  for (auto const& line : log.lines())
  {
    EXPECT_EQ(line.level, 6);
    EXPECT_EQ(line.operation, "Room::operation");
  }
}

TEST(TraceScope, IsSilentBelowLevelSix)
{
  LogCapture log(5);
  {
    TraceScope const trace(LoggerFactory::getLogger(400), "Room::operation");
  }
  EXPECT_EQ(log.lines().size(), 0u);
}

namespace
{

// Destroyed after main, when everything with an orderly life is gone.
struct LastWord
{
  ~LastWord() { LoggerFactory::getLogger(7)->write(1, "LastWord", "written while exiting"); }
};

} // namespace

TEST(LoggerFactoryDeathTest, LinesAreWrittenWhileTheProcessExits)
{
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        static LastWord const word;
        LoggerFactory::getLogger(7)->write(1, "o", "first");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "written while exiting");
}
