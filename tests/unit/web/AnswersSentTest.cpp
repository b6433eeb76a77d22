// What is on its way, and zipped.

#include "web/AnswersSent.h"
#include "web/Zip.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Web;

namespace
{

AnswersSent::Text textOf(std::size_t size)
{
  return std::make_shared<std::string const>(size, 'x');
}

std::string unzipped(std::string const& text)
{
  constexpr int WITH_GZIP_HEADER = 15 + 16;
  z_stream zip{};
  EXPECT_EQ(inflateInit2(&zip, WITH_GZIP_HEADER), Z_OK);
  std::string result(std::size_t(1) << 20, '\0');
  std::string input = text;
  zip.next_in = reinterpret_cast<Bytef*>(input.data());
  zip.avail_in = static_cast<uInt>(input.size());
  zip.next_out = reinterpret_cast<Bytef*>(result.data());
  zip.avail_out = static_cast<uInt>(result.size());
  inflate(&zip, Z_SYNC_FLUSH);
  result.resize(zip.total_out);
  inflateEnd(&zip);
  return result;
}

} // namespace

TEST(AnswersSentTest, OneAddressHasHalf)
{
  constexpr std::size_t ONE = 100'000;
  AnswersSent sent(4 * ONE);
  auto const first = sent.begin(textOf(ONE), "a");
  auto second = sent.begin(textOf(ONE), "a");
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
  EXPECT_FALSE(sent.begin(textOf(ONE), "a"));
  auto const third = sent.begin(textOf(ONE), "b");
  auto const fourth = sent.begin(textOf(ONE), "b");
  EXPECT_TRUE(fourth);
  EXPECT_FALSE(sent.begin(textOf(ONE), "c")) << "it is too much in all";
  EXPECT_TRUE(sent.begin(textOf(100), "c")) << "what is small is not counted";
  second.reset();
  EXPECT_TRUE(sent.begin(textOf(ONE), "c")) << "what has been sent is given back";
}

TEST(AnswersSentTest, WhatSeveralAreSentCountsOnce)
{
  constexpr std::size_t ONE = 100'000;
  AnswersSent sent(3 * ONE);
  auto const text = textOf(ONE);
  auto first = sent.begin(text, "a");
  auto const again = sent.begin(text, "a");
  EXPECT_TRUE(again);
  EXPECT_TRUE(sent.begin(text, "b"));
  first.reset();
  EXPECT_FALSE(sent.begin(textOf(ONE), "a")) << "it is still held";
}

TEST(AnswersSentTest, OneAloneIsNeverTooMuch)
{
  AnswersSent sent(100'000);
  auto const large = sent.begin(textOf(1'000'000), "a");
  EXPECT_TRUE(large);
  EXPECT_FALSE(sent.begin(textOf(20'000), "b"));
}

TEST(ZipStreamTest, WhatIsFlushedCanBeReadBeforeTheEnd)
{
  std::ostringstream out;
  ZipStream zip(out);
  zip << "first\n" << std::flush;
  EXPECT_EQ(unzipped(out.str()), "first\n");
  std::string text = "first\n";
  for (int i = 0; i < 10'000; ++i)
  {
    std::string const line = "line " + std::to_string(i * 7919) + '\n';
    text += line;
    zip << line;
  }
  zip.finish();
  EXPECT_EQ(unzipped(out.str()), text);
  EXPECT_LT(out.str().size(), text.size() / 2);
  EXPECT_EQ(unzipped(zipped(text)), text);
}
