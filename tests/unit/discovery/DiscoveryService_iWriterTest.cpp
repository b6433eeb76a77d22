// Writers that rest, and writers whose payload cannot be written.

#include "discovery/DiscoveryService_iWriter.h"

#include "ozf/orb/ConnectionTable.h"
#include "tests/support/AuditCapture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RemoteService.h"
#include "tests/support/Service.h"
#include "tests/support/Writers.h"
#include "tests/unit/discovery/FailingMemory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <future>
#include <malloc.h>
#include <new>
#include <thread>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
namespace Remote = Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

namespace
{

struct DiscoveryService_iWriterTest : ServiceTest
{
  Remote::RemoteWriter_ptr open(std::string const& subject)
  {
    Remote::RemoteWriter_var writer;
    svc::DiscoveryResult const opened =
        service->putCollection(Service::record(subject.c_str(), "a"), writer.out());
    EXPECT_EQ(svc::DS_SUCCESS, opened.discStatus) << subject << '\n' << log.text();
    return writer._retn();
  }
};

// A writer of a service that is not the master: what it stores goes there.
struct RelayedWriterTest : RemoteServiceTest
{
  // A writer of a peer's.
  struct Opened
  {
    Opened(Peer const& peer, std::string const& subject)
    {
      PeerOfCall const call(&peer);
      owner = new Remote::RemoteWriter_i(Service::record(subject.c_str(), "a"), 1000);
      EXPECT_EQ(svc::DS_SUCCESS, writer().open().discStatus);
    }
    Remote::RemoteWriter_i& writer() const
    {
      return dynamic_cast<Remote::RemoteWriter_i&>(*owner.in());
    }

    PortableServer::ServantBase_var owner;
  };

  RelayedWriterTest() { m_peer.address = "192.0.2.7"; }

  bool put(Remote::RemoteWriter_i& writer)
  {
    PeerOfCall const call(&m_peer);
    return writer.put(bytes(1));
  }

  Peer m_peer;
};

} // namespace

TEST_F(DiscoveryService_iWriterTest, RefusedWritesThatAreNeverClosedUseNothingUp)
{
  constexpr int MORE_THAN_THERE_ARE_NUMBERS = 1100;
  {
    SmallFiles const full(1000);
    for (int i = 0; i < MORE_THAN_THERE_ARE_NUMBERS; ++i)
    {
      Remote::RemoteWriter_var const writer = open("s" + std::to_string(i));
      ASSERT_FALSE(CORBA::is_nil(writer.in())) << "after " << i;
      ASSERT_TRUE(writer->put(bytes(600)));
      ASSERT_FALSE(writer->put(bytes(600)));
    }
    EXPECT_EQ(0U, temporaryFilesIn(host.database()));
  }
  Remote::RemoteWriter_var const writer = open("late");
  ASSERT_FALSE(CORBA::is_nil(writer.in()));
  EXPECT_TRUE(writer->put(bytes(1200)));
  EXPECT_EQ(svc::DS_SUCCESS, writer->close().discStatus);
  EXPECT_EQ(1200U, readText(host.database() + "/2 a late.dat").size());
}

TEST_F(DiscoveryService_iWriterTest, AfterARefusedWriteTheWriterRefusesAllAndCloses)
{
  Remote::RemoteWriter_var const writer = open("s");
  {
    SmallFiles const full(1000);
    EXPECT_FALSE(writer->put(bytes(1200)));
  }
  EXPECT_EQ(0U, temporaryFilesIn(host.database()));
  EXPECT_FALSE(writer->put(bytes(1))) << "there is room again, but a part is missing";
  EXPECT_EQ(svc::DS_OPEN_FAILED, writer->close().discStatus);
  EXPECT_EQ(1, log.count(1, "RemoteWriter_i::close",
                         "Abandoned a discovery of which a part could not be written, subject s & "
                         "authority a"))
      << log.text();
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/2 a s.xml"));
  EXPECT_THROW(writer->close(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(DiscoveryService_iWriterTest, APayloadBeyondTheBoundIsRefused)
{
  PortableServer::ServantBase_var const owner(
      new Remote::RemoteWriter_i(Service::record("s", "a"), 1000));
  auto& writer = dynamic_cast<Remote::RemoteWriter_i&>(*owner.in());
  ASSERT_EQ(svc::DS_SUCCESS, writer.open().discStatus);
  EXPECT_TRUE(writer.put(bytes(600)));
  EXPECT_TRUE(writer.put(bytes(400)));
  EXPECT_TRUE(writer.put(bytes(0)));
  EXPECT_EQ(std::string::npos, log.text().find("Refused")) << log.text();
  EXPECT_FALSE(writer.put(bytes(1)));
  EXPECT_EQ(1, log.count(1, "RemoteWriter_i::put",
                         "Refused a payload of more than 1000 bytes, subject s & authority a"))
      << log.text();
  EXPECT_EQ(0U, temporaryFilesIn(host.database()));
  EXPECT_EQ(svc::DS_OPEN_FAILED, writer.close().discStatus);
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/2 a s.xml"));
}

// The names of a record's source may be as long as a message.
TEST_F(DiscoveryService_iWriterTest, AWriterDoesNotKeepTheNamesOfTheRecordsSource)
{
  Remote::Discovery record = Service::record("s", "a");
  record.sourceHost = std::string(1 << 20, 'h').c_str();
  record.sourceServiceName = std::string(1 << 20, 's').c_str();
  std::deque<PortableServer::ServantBase_var> writers;
  std::size_t const before = mallinfo2().uordblks + mallinfo2().hblkhd;
  for (int i = 0; i < 8; ++i)
    writers.emplace_back(new Remote::RemoteWriter_i(record));
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (1 << 20));
}

TEST_F(DiscoveryService_iWriterTest, TheEvictorLeavesWritersAlone)
{
  auto now = std::make_shared<std::chrono::steady_clock::time_point>();
  Evictor& evictor = host.orb().getEvictor();
  evictor.setClock([now] { return *now; });
  Remote::RemoteWriter_var const writer = open("s");
  ASSERT_TRUE(writer->put(bytes(10)));
  *now += std::chrono::hours(1);
  evictor.evictIdle();
  EXPECT_TRUE(writer->put(bytes(5)));
  EXPECT_EQ(svc::DS_SUCCESS, writer->close().discStatus);
  EXPECT_EQ(15U, readText(host.database() + "/2 a s.dat").size());
}

// Memory ends while the master's answer is dealt with; which piece of it that takes is
// found out.
TEST_F(RelayedWriterTest, OfADiscoveryThatMayBeStoredItIsNotToldThatItIsNot)
{
  constexpr long MOST_PIECES = 1000;
  serveWriter()->beforeClose = [] { throw CORBA::NO_RESOURCES(); };
  AuditCapture const audit;
  std::string subject;
  auto const isTold = [&]
  {
    return audit.has("putCollection", subject, "a",
                     "may be stored: storing it ended with an exception");
  };
  for (long pieces = 0; pieces < MOST_PIECES && !isTold(); ++pieces)
  {
    subject = "s" + std::to_string(pieces);
    Opened const opened(m_peer, subject);
    PeerOfCall const call(&m_peer);
    try
    {
      FailingMemory const memory(pieces, FailingMemory::THE_REST);
      opened.writer().close();
    }
    catch (std::bad_alloc const&)
    {
    }
    opened.writer().abandon();
  }
  EXPECT_TRUE(isTold()) << audit.text();
  EXPECT_FALSE(audit.has("putCollection", subject, "a", "not stored: the writer was never closed"))
      << audit.text();
}

TEST_F(RelayedWriterTest, WhenVeryManyWaitForTheMasterOneMoreIsARefusalThatIsAudited)
{
  std::atomic<int> waiting{0};
  std::promise<void> answer;
  auto const answered = answer.get_future().share();
  serveWriter()->beforePut = [&]
  {
    ++waiting;
    answered.wait();
    throw CORBA::NO_RESOURCES(); // what it notes is not for many threads
  };
  std::deque<Opened> writers;
  std::deque<std::thread> calls;
  for (int i = 0; i < Remote::RemoteWriter_i::MOST_RELAYED; ++i)
  {
    Opened& opened = writers.emplace_back(m_peer, "s" + std::to_string(i));
    calls.emplace_back([&] { put(opened.writer()); });
  }
  EXPECT_TRUE(eventually([&] { return waiting == Remote::RemoteWriter_i::MOST_RELAYED; }))
      << waiting;
  Opened const late(m_peer, "late");
  AuditCapture const audit;
  EXPECT_FALSE(put(late.writer()));
  EXPECT_TRUE(m_log.has(1, "RemoteWriter_i::put",
                        "Refused a call of 192.0.2.7: 64 that write wait for the master already, "
                        "subject late & authority a"))
      << m_log.text();
  EXPECT_TRUE(
      audit.has("put", "late", "a", "refused: too many that write wait for the master already"))
      << audit.text();
  answer.set_value();
  for (std::thread& call : calls)
    call.join();
}
