#include "ozf/base/Report.h"

#include <gtest/gtest.h>
#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string received;

void receive(int level, char const* operation, std::string const& text)
{
  received = std::to_string(level) + "|" + operation + "|" + text;
}

} // namespace

TEST(Report, GoesToStandardErrorAtFirst)
{
  testing::internal::CaptureStderr();
  report(1, "Room::operation", "it went wrong");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "1 Room::operation: it went wrong\n");
}

TEST(Report, GoesToTheSinkOnceThereIsOne)
{
  setReportSink(&receive);
  testing::internal::CaptureStderr();
  report(4, "Room::operation", "detail");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(received, "4|Room::operation|detail");

  setReportSink(nullptr);
  testing::internal::CaptureStderr();
  report(1, nullptr, "again");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "1 : again\n");
}
