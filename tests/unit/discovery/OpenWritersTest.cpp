#include "discovery/OpenWriters.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscoveryService_iWriter.h"
#include "ozf/base/OzfPathname.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/support/Writers.h"
#include "tests/unit/discovery/FailingMemory.h"

#include <gtest/gtest.h>

#include <future>
#include <new>
#include <vector>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
namespace Remote = Quillon::Tessarine::Ozf::DiscoverySvc::Remote;
using Remote::OpenWriters;

namespace
{

struct OpenWritersTest : testing::Test
{
  Service host;
  Remote::DiscoveryService_var service;
  LogCapture log;
  std::atomic<OpenWriters::TimePoint::rep> now{0};

  void SetUp() override
  {
    host.start();
    service = host.connect();
    ASSERT_FALSE(CORBA::is_nil(service)) << log.text();
    Remote::getOpenWriters().setClock(
        [this] { return OpenWriters::TimePoint(OpenWriters::TimePoint::duration(now)); });
  }
  void TearDown() override { Remote::getOpenWriters().setClock({}); }

  void advance(std::chrono::seconds by) { now += OpenWriters::TimePoint::duration(by).count(); }

  Remote::RemoteWriter_ptr open(std::string const& subject)
  {
    Remote::RemoteWriter_var writer;
    service->putCollection(Service::record(subject.c_str(), "a"), writer.out());
    return writer._retn();
  }

  // Whether the put said yes; "gone" when there is no such writer.
  static std::string put(Remote::RemoteWriter_ptr writer, std::size_t count)
  {
    try
    {
      return writer->put(bytes(count)) ? "yes" : "no";
    }
    catch (CORBA::OBJECT_NOT_EXIST const&)
    {
      return "gone";
    }
  }

  // Opens one and has a put of it fail, as on a disk that is full.
  Remote::RemoteWriter_ptr openAndFail(std::string const& subject)
  {
    SmallFiles const full(1000);
    Remote::RemoteWriter_var writer = open(subject);
    EXPECT_EQ("no", put(writer.in(), 2000));
    return writer._retn();
  }
};

// A writer that is called without the ORB, which would want memory before it.
struct LocalWriter
{
  explicit LocalWriter(Service& host, char const* subject)
      : owner(new Remote::RemoteWriter_i(Service::record(subject, "a"), 1000))
  {
    EXPECT_EQ(svc::DS_SUCCESS, writer().open().discStatus);
    reference = host.orb().activateObject(owner.in());
    writer().setReference(reference);
    EXPECT_TRUE(Remote::getOpenWriters().reserve(nullptr, {})->take(writer(), reference));
  }
  Remote::RemoteWriter_i& writer() { return dynamic_cast<Remote::RemoteWriter_i&>(*owner.in()); }

  PortableServer::ServantBase_var owner;
  CORBA::Object_var reference;
};

} // namespace

TEST_F(OpenWritersTest, FailedOnesGoOldestFirstBeyondAFew)
{
  Remote::RemoteWriter_var const healthy = open("healthy");
  std::vector<Remote::RemoteWriter_var> failed;
  for (std::size_t i = 0; i < OpenWriters::MOST_FAILED; ++i)
    failed.emplace_back(openAndFail("s" + std::to_string(i)));
  EXPECT_EQ("no", put(failed.front().in(), 1));
  failed.emplace_back(openAndFail("one more"));
  EXPECT_EQ("gone", put(failed[0].in(), 1));
  EXPECT_EQ("no", put(failed[1].in(), 1)) << "asking again does not make it the latest to fail";
  failed.emplace_back(openAndFail("another"));
  EXPECT_EQ("gone", put(failed[1].in(), 1));
  EXPECT_EQ("no", put(failed[2].in(), 1));
  EXPECT_EQ(OpenWriters::MOST_FAILED + 1, Remote::getOpenWriters().size());
  EXPECT_EQ("yes", put(healthy.in(), 1));
  EXPECT_EQ(svc::DS_SUCCESS, healthy->close().discStatus);
}

TEST_F(OpenWritersTest, OneGoesWhenNothingWasPutForTenMinutes)
{
  Remote::RemoteWriter_var const resting = open("resting");
  Remote::RemoteWriter_var const busy = open("busy");
  ASSERT_EQ("yes", put(resting.in(), 10));
  advance(OpenWriters::MOST_IDLE - std::chrono::seconds(1));
  Remote::getOpenWriters().dropIdle();
  EXPECT_EQ("yes", put(busy.in(), 10));
  EXPECT_EQ(2U, temporaryFilesIn(host.database()));
  advance(std::chrono::seconds(1));
  Remote::getOpenWriters().dropIdle();
  EXPECT_EQ("gone", put(resting.in(), 1));
  EXPECT_THROW(resting->close(), CORBA::OBJECT_NOT_EXIST);
  EXPECT_EQ(1U, temporaryFilesIn(host.database()));
  EXPECT_EQ(1, log.count(1, "OpenWriters::dropIdle",
                         "Dropped a writer of this service: nothing was put for 10 minutes, "
                         "subject resting & authority a"))
      << log.text();
  EXPECT_EQ("yes", put(busy.in(), 5)) << "each put starts the time again";
  EXPECT_EQ(svc::DS_SUCCESS, busy->close().discStatus);
  EXPECT_EQ(15U, readText(host.database() + "/2 a busy.dat").size());
}

// Memory ends with the line that the payload is too large.
TEST_F(OpenWritersTest, AWriterWhosePutEndedWithAnExceptionIsOneThatFailed)
{
  LocalWriter local(host, "thrown");
  auto const tooMuch = bytes(2000);
  {
    FailingMemory const memory(0);
    EXPECT_THROW(local.writer().put(tooMuch), std::bad_alloc);
  }
  EXPECT_EQ(0U, temporaryFilesIn(host.database()));
  EXPECT_FALSE(local.writer().put(bytes(1)));
  std::vector<Remote::RemoteWriter_var> failed;
  for (std::size_t i = 0; i < OpenWriters::MOST_FAILED; ++i)
    failed.emplace_back(openAndFail("f" + std::to_string(i)));
  EXPECT_EQ(OpenWriters::MOST_FAILED, Remote::getOpenWriters().size());
  EXPECT_THROW(local.writer().put(bytes(1)), CORBA::OBJECT_NOT_EXIST) << "it failed first";
}

// Memory ends with the line that a part could not be written.
TEST_F(OpenWritersTest, AWriterWhoseCloseEndedWithAnExceptionGoesWhenItHasBeenIdle)
{
  LocalWriter local(host, "thrown");
  ASSERT_FALSE(local.writer().put(bytes(2000)));
  {
    FailingMemory const memory(0);
    EXPECT_THROW(local.writer().close(), std::bad_alloc);
  }
  EXPECT_EQ(1U, Remote::getOpenWriters().size());
  EXPECT_FALSE(local.reference->_non_existent());
  advance(OpenWriters::MOST_IDLE);
  Remote::getOpenWriters().dropIdle();
  EXPECT_EQ(0U, Remote::getOpenWriters().size());
  EXPECT_TRUE(local.reference->_non_existent());
  EXPECT_THROW(local.writer().close(), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(OpenWritersTest, TheServiceLooksForIdleOnesByItself)
{
  Remote::RemoteWriter_var const resting = open("resting");
  advance(OpenWriters::MOST_IDLE);
  EXPECT_TRUE(tqtest::eventually([] { return Remote::getOpenWriters().size() == 0; }));
  EXPECT_TRUE(eventually([this] { return temporaryFilesIn(host.database()) == 0; }));
}

TEST_F(OpenWritersTest, OneTooManyIsRefusedWithOneLineAndAPlaceIsGivenBack)
{
  constexpr std::size_t MOST = 256;
  std::vector<Remote::RemoteWriter_var> writers;
  for (std::size_t i = 0; i < MOST; ++i)
  {
    writers.emplace_back(open("s" + std::to_string(i)));
    ASSERT_FALSE(CORBA::is_nil(writers.back())) << i << '\n' << log.text();
  }
  std::size_t const before = log.text().size();
  Remote::RemoteWriter_var refused;
  EXPECT_EQ(svc::DS_OPEN_FAILED,
            service->putCollection(Service::record("late", "a"), refused.out()).discStatus);
  EXPECT_TRUE(CORBA::is_nil(refused));
  EXPECT_EQ(1, log.count(1, "OpenWriters::reserve",
                         "Refused a discovery of this service: 256 writers are open already"))
      << log.text();
  EXPECT_LT(log.text().size(), before + 500);
  EXPECT_EQ(MOST, temporaryFilesIn(host.database()));

  ASSERT_EQ(svc::DS_SUCCESS, writers.back()->close().discStatus);
  Remote::RemoteWriter_var const late = open("late");
  EXPECT_FALSE(CORBA::is_nil(late));
}

TEST_F(OpenWritersTest, OneThatCouldNotBeOpenedTakesNoPlace)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT, "<x/>", 50));
  Remote::RemoteWriter_var writer;
  EXPECT_NE(svc::DS_SUCCESS,
            service->putCollection(Service::record("s", "a"), writer.out()).discStatus);
  EXPECT_EQ(0U, Remote::getOpenWriters().size());
}

TEST_F(OpenWritersTest, TheEndOfTheServiceLetsAllGo)
{
  Remote::RemoteWriter_var const writer = open("s");
  ASSERT_EQ("yes", put(writer.in(), 1));
  host.stop();
  EXPECT_EQ(0U, Remote::getOpenWriters().size());
  EXPECT_EQ(0U, temporaryFilesIn(host.database()));
}

TEST_F(OpenWritersTest, OneThatIsOpenedWhileTheServiceEndsHoldsNothingUp)
{
  host.leaveFrameworkToTest();
  std::optional<svc::MetadataGuard> held(
      std::in_place,
      OzfPathname::makeFilename(svc::getDiscoveryDBDatabase()->getDirectory(), "2 a s.xml").str());
  svc::DiscoveryResult result{};
  Remote::RemoteWriter_var writer;
  std::thread caller([&]
                     { result = service->putCollection(Service::record("s", "a"), writer.out()); });
  EXPECT_TRUE(eventually([] { return Remote::getOpenWriters().size() == 1; }));
  host.framework().shutdown();
  held.reset();
  caller.join();
  EXPECT_EQ(svc::DS_OPEN_FAILED, result.discStatus);
  EXPECT_TRUE(CORBA::is_nil(writer));
  EXPECT_EQ(0U, temporaryFilesIn(host.database()));
  EXPECT_EQ(1, log.count(1, "DiscoveryService_i::putCollection",
                         "Refused a discovery of this service: the service is about to stop"))
      << log.text();

  std::promise<void> finished;
  std::thread ending(
      [&]
      {
        host.framework().fini();
        finished.set_value();
      });
  bool const inTime =
      finished.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  EXPECT_TRUE(inTime);
  if (!inTime)
    std::_Exit(1); // what waits for ever is not waited for
  ending.join();
}
