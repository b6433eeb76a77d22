// Writers that rest, and writers whose payload cannot be written.

#include "discovery/DiscoveryService_iWriter.h"

#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/support/Writers.h"

#include <gtest/gtest.h>

#include <deque>
#include <malloc.h>

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
