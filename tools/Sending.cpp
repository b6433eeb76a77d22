#include "tools/Sending.h"

#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/base/OzfObjTime.h"

#include <algorithm>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t CHUNK = 64 * 1024;

std::string describeRefusal(DiscoveryStatus status)
{
  switch (status)
  {
  case DS_DATA_EXISTS:
    return "there is such a discovery of higher priority; --priority can be raised";
  case DS_OPEN_FAILED:
    return "it cannot be written there; the service's log tells why";
  default:
    return "the service answers with status " + std::to_string(static_cast<int>(status)) +
           "; its log tells why";
  }
}

bool send(Remote::RemoteWriter_ptr writer, std::string const& payload)
{
  Progress progress("Sending");
  for (std::size_t done = 0; done < payload.size(); done += CHUNK)
  {
    progress.update(formatSize(done) + " of " + formatSize(payload.size()));
    std::size_t const size = std::min(CHUNK, payload.size() - done);
    Remote::CollectionDataSeq chunk;
    chunk.length(static_cast<CORBA::ULong>(size));
    std::copy_n(payload.data() + done, size, reinterpret_cast<char*>(chunk.get_buffer()));
    if (!writer->put(chunk))
      return false;
  }
  return true;
}

// The receiver adds a quarter to the interval that it is sent.
std::uint64_t intervalFor(std::uint64_t seconds) { return (seconds * 4 + 4) / 5; }

} // namespace

Remote::Discovery recordToStore(std::string const& subject, std::string const& authority,
                                AuthorityType type, unsigned priority, std::uint64_t seconds)
{
  Remote::Discovery record;
  record.queryType = DQ_DISCOVERY_DATA;
  record.subject = subject.c_str();
  record.authority = authority.c_str();
  record.authType = type;
  record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, static_cast<CORBA::Long>(priority),
                       intervalFor(seconds),
                       static_cast<CORBA::ULongLong>(OzfObjTime::now().seconds())};
  OzfHostname local;
  local.setLocal();
  record.sourceHost = local.exportNarrow().c_str();
  record.sourceServiceName = "";
  return record;
}

Sent sendTo(Remote::DiscoveryService_ptr service, Remote::Discovery const& record,
            std::string const& payload)
{
  try
  {
    Remote::RemoteWriter_var writer;
    DiscoveryStatus status = service->putCollection(record, writer.out()).discStatus;
    if (status == DS_SUCCESS)
    {
      bool const sent = send(writer, payload);
      // Closed whatever came before: the service keeps a writer until then.
      status = writer->close().discStatus;
      status = sent || status != DS_SUCCESS ? status : DS_OPEN_FAILED;
    }
    if (status == DS_SUCCESS)
      return {};
    return {EXIT_FAILED, "not stored: " + describeRefusal(status)};
  }
  catch (CORBA::NO_PERMISSION const& exception)
  {
    return {EXIT_REFUSED, "not stored: " + reasonOf(exception)};
  }
  catch (CORBA::Exception const& exception)
  {
    return {EXIT_FAILED, "not stored: " + reasonOf(exception), true};
  }
}

int sendToMaster(Connection const& connection, Remote::Discovery const& record,
                 std::string const& payload)
{
  Sent const sent = sendTo(connection.service(), record, payload);
  if (sent.result != EXIT_DONE)
    complain(sent.reason);
  return sent.broken ? connection.conclude(sent.result) : sent.result;
}

} // namespace tqdiscoctl
