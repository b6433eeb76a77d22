#include "ozf/base/Digest.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(Digest, IsTheBeginningOfTheSha256)
{
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223", digestOf("abc"));
  EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb924", digestOf(""));
  EXPECT_EQ(2 * DIGEST_BYTES, digestOf(std::string(1, '\0')).size());
}
