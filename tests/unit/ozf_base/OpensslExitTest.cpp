#include "ozf/base/Digest.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <unistd.h>

namespace
{

// libcrypto's clean-up calls what was registered first of all.
[[noreturn]] void endOfAUser()
{
  Quillon::Tessarine::Ozf::digestOf("");
  OPENSSL_atexit([] { ::_exit(EXIT_FAILURE); });
  std::exit(EXIT_SUCCESS);
}

} // namespace

TEST(OpensslExitTest, TheEndOfTheProcessTakesNothingFromThreadsThatUseIt)
{
  EXPECT_EXIT(endOfAUser(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}
