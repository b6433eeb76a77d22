// What becomes of lines while their file hangs, as one does whose server is away.

#include "ozf/log/AuditWriter.h"

#include "tests/support/OtherProcess.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

// A file that cannot be written, and a complaint of it that does not come back: to all
// others it is the same what stops the thread that writes.
class AuditWriterTest : public testing::Test
{
protected:
  ~AuditWriterTest() override
  {
    go();
    m_writer->end();
  }

  struct State
  {
    std::promise<void> hangs;
    std::promise<void> going;
    std::shared_future<void> goes{going.get_future()};
    std::atomic<int> complaintsOfFile{0};
    std::atomic<int> complaintsOfTime{0};
    std::atomic<int> goesOn{0};
    std::atomic<std::uint64_t> lost{0};
  };

  AuditWriter::Hooks hooks()
  {
    AuditWriter::Hooks hooks;
    hooks.missingLine = [](std::uint64_t count) { return std::to_string(count) + " missing\n"; };
    hooks.complain = [state = m_state](std::string const& text)
    {
      if (text.find("Unable to write") != std::string::npos && state->complaintsOfFile++ == 0)
      {
        state->hangs.set_value();
        state->goes.wait();
      }
      state->complaintsOfTime += text.find("Nothing was written") != std::string::npos;
      state->goesOn += text.find("is written again") != std::string::npos;
    };
    hooks.lost = [state = m_state](std::uint64_t count) { state->lost += count; };
    hooks.now = [] { return std::chrono::steady_clock::now(); };
    return hooks;
  }

  void go()
  {
    if (!std::exchange(m_going, true))
      m_state->going.set_value();
  }

  TempDir m_temp;
  std::string const m_path = m_temp / "file";
  std::shared_ptr<State> m_state = std::make_shared<State>();
  std::shared_ptr<AuditWriter> m_writer = std::make_shared<AuditWriter>(m_path, hooks());

  // A line that cannot be written, at which the writer's thread stands until go.
  std::future<void> hang()
  {
    std::filesystem::create_directory(m_path);
    EXPECT_EQ(m_writer->open(), EISDIR);
    auto appended = std::async(std::launch::async, [this] { m_writer->append("a\n", true); });
    m_state->hangs.get_future().wait();
    std::filesystem::remove(m_path);
    return appended;
  }

  bool holds(std::string const& text) const
  {
    return eventually([&] { return readText(m_path) == text; });
  }

private:
  bool m_going = false;
};

} // namespace

TEST_F(AuditWriterTest, whileItHangsNobodyWaitsAndAfterwardsTheLinesAreThere)
{
  auto const first = hang();
  for (char const* line : {"b\n", "c\n", "d\n"})
    m_writer->append(line, true);
  EXPECT_TRUE(eventually([this] { return m_state->complaintsOfTime == 1; }));
  EXPECT_EQ(readText(m_path), "");
  EXPECT_EQ(m_state->lost, 1U);
  go();
  EXPECT_TRUE(holds("1 missing\nb\nc\nd\n")) << readText(m_path);
  EXPECT_TRUE(eventually([this] { return m_state->goesOn > 0; }));
  m_writer->append("e\n", true);
  EXPECT_EQ(readText(m_path), "1 missing\nb\nc\nd\ne\n") << "it is waited for again";
}

TEST_F(AuditWriterTest, ofWhatCannotBeHeldTheNumberIsWritten)
{
  auto const first = hang();
  std::string const quarter(AuditWriter::MOST_HELD / 4, 'x');
  for (int i = 0; i < 5; ++i)
    m_writer->append(quarter, true);
  EXPECT_EQ(m_state->lost, 3U) << "the first one, and what is more than may be held";
  m_writer->append("z\n", true);
  go();
  EXPECT_TRUE(holds("1 missing\n" + quarter + quarter + quarter + "2 missing\nz\n"));
  EXPECT_EQ(m_state->lost, 3U);
}
