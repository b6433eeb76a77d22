// Peers that open writers and leave them, and peers that use what is another's.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstring>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
namespace wire = client::Remote;

std::string textOf(CORBA::Object_ptr object)
{
  int none = 0;
  CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4");
  return CORBA::String_var(orb->object_to_string(object)).in();
}

CORBA::Object_ptr objectOf(std::string const& text)
{
  int none = 0;
  CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4");
  return orb->string_to_object(text.c_str());
}

// Reads the fields of a reference, which begins with the byte order of its maker.
class ReferenceReader
{
public:
  explicit ReferenceReader(std::string bytes) : m_bytes(std::move(bytes)) {}

  void skip(std::size_t count, std::size_t alignment)
  {
    m_at = (m_at + alignment - 1) / alignment * alignment + count;
  }
  std::uint32_t number()
  {
    skip(4, 4);
    std::uint32_t value = 0;
    std::memcpy(&value, m_bytes.substr(m_at - 4, 4).data(), 4);
    return m_bytes[0] == '\1' ? value : __builtin_bswap32(value);
  }
  std::string sequence()
  {
    std::uint32_t const length = number();
    skip(length, 1);
    return m_bytes.substr(m_at - length, length);
  }

private:
  std::string m_bytes;
  std::size_t m_at = 1;
};

std::string keyOf(CORBA::Object_ptr object)
{
  std::string const hex = textOf(object).substr(std::strlen("IOR:"));
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  ReferenceReader reference(bytes);
  reference.sequence(); // the interface
  reference.skip(8, 4); // the number of profiles, and the kind of the first
  ReferenceReader profile(reference.sequence());
  profile.skip(2, 1); // its version
  profile.sequence(); // the address
  profile.skip(2, 2); // the port
  return profile.sequence();
}

// The service listens on two addresses; who calls it by the second is another
// peer than who calls it by the first.
class HostileWriterTest : public testing::Test
{
protected:
  static constexpr int MOST_OF_A_PEER = 32;
  static constexpr char STRANGER[] = "::1";

  void start()
  {
    m_service.configure(std::string("ORB_BIND = ") + STRANGER +
                        "\nAUDIT_FILE = " + m_service / "audit.log" + "\n");
    ASSERT_TRUE(m_service.start()) << m_service.log();
    connect();
  }
  void connect()
  {
    m_client = std::make_unique<client::Client>(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(m_client->connected()) << m_service.log();
  }

  // The object as the stranger reaches it who has found its key out.
  template <class Interface>
  typename Interface::_var_type asStranger(CORBA::Object_ptr object)
  {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string escaped;
    for (unsigned char const byte : keyOf(object))
      escaped.append({'%', DIGITS[byte >> 4], DIGITS[byte & 15]});
    CORBA::Object_var const found = objectOf("corbaloc:iiop:1.2@[" + std::string(STRANGER) + "]:" +
                                             std::to_string(m_service.port()) + "/" + escaped);
    return Interface::_unchecked_narrow(found);
  }

  static client::DiscoveryStatus open(wire::DiscoveryService_ptr service,
                                      std::string const& subject, wire::RemoteWriter_var& writer)
  {
    return service->putCollection(client::makeRecord(subject, "written"), writer.out()).discStatus;
  }

  std::size_t temporaryFiles() const
  {
    std::size_t count = 0;
    for (auto const& entry : std::filesystem::directory_iterator(m_service.database()))
      count += entry.path().extension() == ".updating" ? 1 : 0;
    return count;
  }

  LiveService m_service;
  std::unique_ptr<client::Client> m_client;
};

} // namespace

TEST_F(HostileWriterTest, aPeerHasSoManyWritersAndIsRefusedInOneLineAndOthersAreNot)
{
  start();
  std::vector<wire::RemoteWriter_var> writers(MOST_OF_A_PEER);
  for (int i = 0; i < MOST_OF_A_PEER; ++i)
    ASSERT_EQ(open(m_client->operator->(), "s" + std::to_string(i), writers[i]), client::DS_SUCCESS)
        << i << '\n'
        << m_service.log();
  std::size_t const before = m_service.log().size();
  constexpr int REFUSALS = 3;
  for (int i = 0; i < REFUSALS; ++i)
  {
    wire::RemoteWriter_var writer;
    EXPECT_EQ(open(m_client->operator->(), "late", writer), client::DS_OPEN_FAILED);
    EXPECT_TRUE(CORBA::is_nil(writer));
  }
  EXPECT_GE(occurrences(m_service.log(),
                        "Refused a discovery of 127.0.0.1: it has 32 writers open already"),
            1U)
      << m_service.log();
  EXPECT_LT(m_service.log().size(), before + REFUSALS * 300);

  auto const stranger = asStranger<wire::DiscoveryService>(m_client->operator->());
  wire::RemoteWriter_var others;
  EXPECT_EQ(open(stranger, "of another", others), client::DS_SUCCESS) << m_service.log();
  ASSERT_EQ(writers.back()->close().discStatus, client::DS_SUCCESS);
  EXPECT_EQ(m_client->store("late", "written", "<late/>"), client::DS_SUCCESS);
  EXPECT_EQ(m_client->read("late", "written"), "<late/>");
  m_client.reset();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_EQ(temporaryFiles(), 0U);
}

TEST_F(HostileWriterTest, failedWritersGoWithTheirConnectionAndHealthyOnesOutliveIt)
{
  // Where a full disk would meet the writer, a limit on the size of files does.
  auto const before = std::signal(SIGXFSZ, SIG_IGN);
  m_service.configure();
  ASSERT_TRUE(m_service.start({}, {"/usr/bin/prlimit", "--fsize=100000:100000"}))
      << m_service.log();
  std::signal(SIGXFSZ, before);
  connect();
  wire::RemoteWriter_var healthy;
  wire::RemoteWriter_var failed;
  ASSERT_EQ(open(m_client->operator->(), "healthy", healthy), client::DS_SUCCESS);
  ASSERT_EQ(open(m_client->operator->(), "failed", failed), client::DS_SUCCESS);
  ASSERT_TRUE(healthy->put(client::makeChunk("<he")));
  ASSERT_FALSE(failed->put(client::makeChunk(std::string(200'000, 'x'))));
  ASSERT_FALSE(failed->put(client::makeChunk("x"))) << "it is still there";
  std::string const healthyText = textOf(healthy);
  std::string const failedText = textOf(failed);

  healthy = wire::RemoteWriter::_nil();
  failed = wire::RemoteWriter::_nil();
  m_client.reset();
  connect();
  auto const again = [](std::string const& text)
  {
    CORBA::Object_var const object = objectOf(text);
    return wire::RemoteWriter::_unchecked_narrow(object);
  };
  EXPECT_TRUE(eventually(
      [&]
      {
        try
        {
          wire::RemoteWriter_var(again(failedText))->put(client::makeChunk("x"));
          return false;
        }
        catch (CORBA::OBJECT_NOT_EXIST const&)
        {
          return true;
        }
      }));
  wire::RemoteWriter_var const kept = again(healthyText);
  EXPECT_TRUE(kept->put(client::makeChunk("althy/>")));
  EXPECT_EQ(kept->close().discStatus, client::DS_SUCCESS);
  EXPECT_EQ(m_client->read("healthy", "written"), "<healthy/>");
  m_client.reset();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// The reference of an iterator may name another address of the service than the
// one that was asked, and the caller then has another one, too.
TEST_F(HostileWriterTest, aHostOfSeveralAddressesMayGoOnByAnotherFromTheFirstCallOn)
{
  start();
  ASSERT_EQ(m_client->store("stored", "written", "<stored/>"), client::DS_SUCCESS);
  wire::DiscoveryIterator_var const records =
      (*m_client)->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*");
  auto const byAnother = asStranger<wire::DiscoveryIterator>(records);
  wire::DiscoverySeq_var const page = byAnother->getNextPage();
  EXPECT_EQ(page->length(), 1U);
  EXPECT_EQ(records->pageSize(), 8) << "its first address has not lost it";
  byAnother->release();
  EXPECT_THROW(records->pageSize(), CORBA::OBJECT_NOT_EXIST);
  m_client.reset();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

TEST_F(HostileWriterTest, whatOnePeerOpenedNoOtherMayUse)
{
  start();
  ASSERT_EQ(m_client->store("stored", "written", "<stored/>"), client::DS_SUCCESS);
  wire::RemoteWriter_var writer;
  ASSERT_EQ(open(m_client->operator->(), "half", writer), client::DS_SUCCESS);
  ASSERT_TRUE(writer->put(client::makeChunk("<ha")));
  wire::DiscoveryIterator_var const records =
      (*m_client)->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*");
  wire::CollectionDataIterator_var data;
  ASSERT_EQ((*m_client)->getCollectionData(client::makeRecord("stored", "written"), "", data.out()),
            client::DS_SUCCESS);
  EXPECT_EQ(data->pageSize(), 8);
  EXPECT_EQ(records->pageSize(), 8);

  auto const strangeWriter = asStranger<wire::RemoteWriter>(writer);
  EXPECT_THROW(strangeWriter->put(client::makeChunk("x")), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeWriter->close(), CORBA::NO_PERMISSION);
  auto const strangeRecords = asStranger<wire::DiscoveryIterator>(records);
  EXPECT_THROW(strangeRecords->pageSize(), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeRecords->pageSize(1), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeRecords->getNextPage(), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeRecords->release(), CORBA::NO_PERMISSION);
  auto const strangeData = asStranger<wire::CollectionDataIterator>(data);
  EXPECT_THROW(strangeData->pageSize(), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeData->pageSize(1), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeData->getNextPage(), CORBA::NO_PERMISSION);
  EXPECT_THROW(strangeData->release(), CORBA::NO_PERMISSION);
  EXPECT_THAT(m_service.log(), HasSubstr("RemoteWriter_i::close: Refused a call of ::1: the "
                                         "object belongs to 127.0.0.1"));
  EXPECT_THAT(readText(m_service / "audit.log"),
              HasSubstr("\"peer\":\"::1\",\"name\":[],\"operation\":\"close\",\"subject\":\"\","
                        "\"authority\":\"\",\"result\":\"refused: the object belongs to "
                        "127.0.0.1\"}"));

  // Their owner's as before.
  wire::CollectionDataSeq_var const bytes = data->getNextPage();
  EXPECT_EQ(bytes->length(), 8U);
  wire::DiscoverySeq_var const page = records->getNextPage();
  EXPECT_EQ(page->length(), 1U);
  EXPECT_TRUE(writer->put(client::makeChunk("lf/>")));
  EXPECT_EQ(writer->close().discStatus, client::DS_SUCCESS);
  EXPECT_EQ(m_client->read("half", "written"), "<half/>");
  data->release();
  records->release();
  m_client.reset();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}
