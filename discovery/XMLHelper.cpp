#include "discovery/XMLHelper.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/xml/OzfDOMHandler.h"

#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "XMLHelper";
constexpr char OPERATION[] = "XMLHelper::parse";

// A buffer may have a megabyte; this much of it is enough to see what it is.
constexpr std::size_t LONGEST_LOGGED = 4096;

int parseBuffer(OzfDOMHandler& handler, std::string const& buffer)
{
  int const result = handler.parse(buffer);
  if (result != 0)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Failed to parse buffer: " << std::string_view(buffer).substr(0, LONGEST_LOGGED)
                                       << (buffer.size() > LONGEST_LOGGED ? "..." : ""));
  return result;
}

} // namespace

int XMLHelper::parse(std::stringstream& xml, OzfString& serviceName, OzfString& sourceHost,
                     unsigned int& priority, AuthorityType& originType)
{
  TraceScope const trace(getOzfLogger(), OPERATION);
  std::string const buffer = xml.str();
  OzfDOMHandler handler;
  if (int const result = parseBuffer(handler, buffer); result != 0)
    return result;

  // A number that is no authority type is as good as missing.
  unsigned type = 0;
  if (!handler.getValue("ServiceName", serviceName) ||
      !handler.getValue("SourceHost", sourceHost) || !handler.getValue("Priority", priority) ||
      !handler.getValue("OriginType", type) || type > static_cast<unsigned>(AT_REMOTEPULL))
    return -1;
  originType = static_cast<AuthorityType>(type);
  return 0;
}

int XMLHelper::parse(std::string& xml, unsigned int& priority)
{
  TraceScope const trace(getOzfLogger(), OPERATION);
  OzfDOMHandler handler;
  if (int const result = parseBuffer(handler, xml); result != 0)
    return result;
  return handler.getValue("Priority", priority) ? 0 : -1;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
