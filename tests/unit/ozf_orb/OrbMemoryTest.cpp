// Refuses this program single pieces of memory, those that the ORB asks for among them.

#include "ozf/base/SpareMemory.h"
#include "tests/unit/discovery/FailingMemory.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

using namespace Quillon::Tessarine::Ozf;

namespace
{

class OrbMemoryTest : public testing::Test
{
protected:
  OrbMemoryTest() : orb(1, "", "evicting", 1, 0) {}

  void SetUp() override
  {
    ASSERT_TRUE(orb.init());
    ASSERT_EQ(orb.run(0), 0);
    alarm(60); // for the ORB that waits for a lock that it keeps
  }
  void TearDown() override
  {
    orb.shutdown();
    alarm(0);
    EXPECT_EQ(ProbeServant::alive, 0);
  }

  // A reference of a new servant, made while so many pieces of memory are granted and then
  // one is not; null when none was made.
  OrbTest::Probe_ptr activate(long granted)
  {
    auto* const servant = new ProbeServant;
    PortableServer::ServantBase_var const keeper = servant;
    CORBA::OctetSeq_var id;
    CORBA::Object_var object;
    try
    {
      FailingMemory const failing(granted, FailingMemory::THE_REST);
      object = orb.activateEvictable(servant, OrbTest::Probe::_PD_repoId, id.out());
    }
    catch (std::bad_alloc const&)
    {
    }
    return OrbTest::Probe::_unchecked_narrow(object);
  }

  Orb orb;
};

TEST_F(OrbMemoryTest, ReferencesAreMadeInOrderWhicheverPieceOfMemoryIsMissing)
{
  long made = 0;
  long refused = 0;
  bool isMissing = true;
  for (long granted = 0; isMissing; ++granted)
  {
    OrbTest::Probe_var const probe = activate(granted);
    isMissing = FailingMemory::refused() != 0;
    if (isMissing)
      ++(CORBA::is_nil(probe) ? refused : made);
    OrbTest::Probe_var const next = activate(10000);
    ASSERT_FALSE(CORBA::is_nil(next));
    CORBA::String_var const answer = next->echo("on");
    EXPECT_STREQ(answer.in(), "on");
  }
  // What is set aside has to be there; then nothing is missing any more.
  EXPECT_EQ(refused, static_cast<long>(SpareMemory::PIECES));
  EXPECT_GT(made, 3);
}

} // namespace
