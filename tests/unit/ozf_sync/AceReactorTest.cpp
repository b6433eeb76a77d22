#include "ozf/sync/AceReactor.h"

#include <ace/Reactor.h>
#include <ace/Select_Reactor.h>
#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(AceReactor, IsNullUntilOneWasSet) { EXPECT_EQ(getAceReactor(), nullptr); }

TEST(AceReactor, IsTheOneThatWasSetLast)
{
  ACE_Reactor first(new ACE_Select_Reactor, true);
  ACE_Reactor second(new ACE_Select_Reactor, true);
  setAceReactor(&first);
  EXPECT_EQ(getAceReactor(), &first);
  setAceReactor(&second);
  EXPECT_EQ(getAceReactor(), &second);
  setAceReactor(nullptr);
  EXPECT_EQ(getAceReactor(), nullptr);
}
