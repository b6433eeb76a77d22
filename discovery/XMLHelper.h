// Pulls a few named values out of the XML records that the library writes.

#pragma once

#include "discovery/Export.h"
#include "ozf/base/OzfString.h"

#include <DiscoveryTypesC.h>

#include <sstream>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class TQ_EXPORT XMLHelper
{
public:
  XMLHelper() = delete;

  // Reads a pull-explorer registration. 0 when all four values are there, -1
  // when one is missing (those before it are set), the parser's code when the
  // text is not well-formed. Throws std::bad_alloc when memory runs out: what
  // cannot be read for that reason is not to be taken for text without values.
  static int parse(std::stringstream& xml, OzfString& serviceName, OzfString& sourceHost,
                   unsigned int& priority, AuthorityType& originType);

  // Reads the priority of a metadata document; results likewise.
  static int parse(std::string& xml, unsigned int& priority);
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
