// Conversion of values to and from the text of metadata.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfObjTime.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Times are written in UTC after ISO 8601: "2026-03-01T12:30:05Z".
class OZF_EXPORT MetadataConverter
{
public:
  // Writes time. With fraction the microseconds follow, always six digits
  // ("2026-03-01T12:30:05.000250Z"); without it they are dropped. False when
  // the time lies outside the years 1970 to 9999; text is then unchanged.
  static bool convert(OzfObjTime const& time, std::string& text, bool fraction);

  // Reads what the writer wrote. With fraction one to six digits of a second
  // are accepted, without it none are. White space around the text is
  // ignored. False on anything else; time is then unchanged.
  static bool convert(std::string const& text, OzfObjTime& time, bool fraction);

  // Decimal integers without sign or white space, of at most 32 bits. False
  // on anything else; value is then unchanged.
  static bool convert(std::string const& text, unsigned& value);
};

} // namespace Quillon::Tessarine::Ozf
