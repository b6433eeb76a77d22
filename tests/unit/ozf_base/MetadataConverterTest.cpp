#include "ozf/base/MetadataConverter.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string written(OzfObjTime const& time, bool fraction)
{
  std::string text = "untouched";
  return MetadataConverter::convert(time, text, fraction) ? text : "refused";
}

// The time read, or nothing but the marker when the text was refused.
OzfObjTime read(std::string const& text, bool fraction = true)
{
  OzfObjTime time(77, 7);
  bool const accepted = MetadataConverter::convert(text, time, fraction);
  EXPECT_TRUE(accepted || time == OzfObjTime(77, 7)) << text;
  return time;
}

OzfObjTime const REFUSED(77, 7);

} // namespace

TEST(MetadataConverter, WritesUtcAfterIso8601)
{
  EXPECT_EQ(written(OzfObjTime(1'772'368'205, 250), false), "2026-03-01T12:30:05Z");
  EXPECT_EQ(written(OzfObjTime(1'772'368'205, 250), true), "2026-03-01T12:30:05.000250Z");
  EXPECT_EQ(written(OzfObjTime(1), true), "1970-01-01T00:00:01.000000Z");
  EXPECT_EQ(written(OzfObjTime::max(), true), "9999-12-31T23:59:59.999999Z");
}

TEST(MetadataConverter, DoesNotWriteTimesBefore1970)
{
  std::string text = "untouched";
  EXPECT_FALSE(MetadataConverter::convert(OzfObjTime(-1), text, true));
  EXPECT_FALSE(MetadataConverter::convert(OzfObjTime(0, -1), text, false));
  EXPECT_EQ(text, "untouched");
}

TEST(MetadataConverter, ReadsWhatItWrote)
{
  for (auto const& time :
       {OzfObjTime(0, 1), OzfObjTime(951'782'400), OzfObjTime(1'772'368'205, 250),
        OzfObjTime(4'102'444'799, 999'999), OzfObjTime::max()})
    EXPECT_EQ(read(written(time, true)), time);
  EXPECT_EQ(read(written(OzfObjTime(1'772'368'205, 250), false)), OzfObjTime(1'772'368'205));
}

TEST(MetadataConverter, ReadsOneToSixDigitsOfASecond)
{
  EXPECT_EQ(read("1970-01-01T00:00:01.5Z"), OzfObjTime(1, 500'000));
  EXPECT_EQ(read("1970-01-01T00:00:01.000025Z"), OzfObjTime(1, 25));
  EXPECT_EQ(read("1970-01-01T00:00:01.Z"), REFUSED);
  EXPECT_EQ(read("1970-01-01T00:00:01.0000001Z"), REFUSED);
  EXPECT_EQ(read("1970-01-01T00:00:01.-5Z"), REFUSED);
}

TEST(MetadataConverter, WithoutTheFlagNoFractionIsRead)
{
  EXPECT_EQ(read("1970-01-01T00:00:01Z", false), OzfObjTime(1));
  EXPECT_EQ(read("1970-01-01T00:00:01.5Z", false), REFUSED);
}

TEST(MetadataConverter, IgnoresWhiteSpaceAround)
{
  EXPECT_EQ(read(" \t\r\n1970-01-01T00:00:01Z\n "), OzfObjTime(1));
}

TEST(MetadataConverter, KnowsTheCalendar)
{
  EXPECT_EQ(read("2024-02-29T00:00:00Z"), OzfObjTime(1'709'164'800));
  EXPECT_EQ(read("2023-02-29T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("2100-02-29T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("2023-00-10T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("2023-13-10T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("2023-04-31T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("2023-04-00T00:00:00Z"), REFUSED);
  EXPECT_EQ(read("1969-12-31T23:59:59Z"), REFUSED);
  EXPECT_EQ(read("2023-04-30T24:00:00Z"), REFUSED);
  EXPECT_EQ(read("2023-04-30T23:60:00Z"), REFUSED);
  EXPECT_EQ(read("2023-04-30T23:59:60Z"), REFUSED);
}

TEST(MetadataConverter, RefusesEveryOtherForm)
{
  for (std::string const text :
       {"", " ", "Z", "x", "2026-03-01", "2026-03-01T12:30:05", "2026-03-01 12:30:05Z",
        "2026-03-01T12:30:05z", "2026-03-01T12:30:05+00:00", "2026-3-1T12:30:05Z",
        "+026-03-01T12:30:05Z", "-026-03-01T12:30:05Z", "2026-03-01T12:30:-5Z",
        "2026-03-01T12:30: 5Z", "2026-03-01T12:30:05ZZ", "2026-03-01T12:30:05Z x",
        "12026-03-01T12:30:05Z", "2026-03-01T12:30:05,5Z", "2026.03.01T12.30.05Z"})
    EXPECT_EQ(read(text), REFUSED) << text;
  EXPECT_EQ(read(std::string("2026-03-01T12:30:05Z\0", 21)), REFUSED);
}

TEST(MetadataConverter, ReadsUnsignedNumbers)
{
  unsigned value = 5;
  EXPECT_TRUE(MetadataConverter::convert("0", value));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(MetadataConverter::convert("4294967295", value));
  EXPECT_EQ(value, 4294967295u);
  EXPECT_TRUE(MetadataConverter::convert("007", value));
  EXPECT_EQ(value, 7u);
  EXPECT_TRUE(MetadataConverter::convert(std::string(30, '0') + "8", value));
  EXPECT_EQ(value, 8u);
}

TEST(MetadataConverter, RefusesWhatIsNoUnsignedNumber)
{
  unsigned value = 5;
  for (std::string const text :
       {"", "x", "-1", "+1", " 1", "1 ", "4294967296", "99999999999999999999",
        "18446744073709551617", "1.0", "0x10", "1:", "1/"})
    EXPECT_FALSE(MetadataConverter::convert(text, value)) << text;
  EXPECT_EQ(value, 5u);
}
