#include "ozf/orb/Corba.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;

TEST(CorbaTest, namesMinorAndCompletionOfASystemException)
{
  EXPECT_EQ(corbaExceptionText(CORBA::COMM_FAILURE(0x41540009, CORBA::COMPLETED_NO)),
            "COMM_FAILURE (minor 0x41540009, completed NO)");
  EXPECT_EQ(corbaExceptionText(CORBA::TIMEOUT(0, CORBA::COMPLETED_MAYBE)),
            "TIMEOUT (minor 0x0, completed MAYBE)");
  EXPECT_EQ(corbaExceptionText(CORBA::TRANSIENT(1, CORBA::COMPLETED_YES)),
            "TRANSIENT (minor 0x1, completed YES)");
}

TEST(CorbaTest, namesAUserException)
{
  EXPECT_EQ(corbaExceptionText(PortableServer::POA::WrongPolicy()), "WrongPolicy");
}
