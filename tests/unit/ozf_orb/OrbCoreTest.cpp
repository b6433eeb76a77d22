#include "ozf/orb/OrbCore.h"

#include <gtest/gtest.h>
#include <omnithread.h>
#include <thread>

using namespace Quillon::Tessarine::Ozf;

TEST(OrbCoreTest, makesAThreadKnownToTheOrbOnce)
{
  std::thread(
      []
      {
        OrbCore core;
        EXPECT_EQ(omni_thread::self(), nullptr);
        core.lf_strategy().set_upcall_thread(core.leader_follower());
        auto* const self = omni_thread::self();
        EXPECT_NE(self, nullptr);
        core.lf_strategy().set_upcall_thread(core.leader_follower());
        EXPECT_EQ(omni_thread::self(), self);
      })
      .join();
}
