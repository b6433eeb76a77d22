// Records as a master lists them.

#pragma once

#include "tools/Records.h"

#include <string>

namespace tqtest
{

inline constexpr std::int64_t LISTED_AT = 1'800'000'000; // seconds since 1970

// age, expiresIn: seconds, at that time.
inline tqdiscoctl::Record listedRecord(std::string const& subject, std::string const& authority,
                                       std::int64_t age,
                                       Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type =
                                           Quillon::Tessarine::Ozf::DiscoverySvc::AT_TQUCLIENT,
                                       std::int64_t expiresIn = 7200)
{
  using Quillon::Tessarine::Ozf::OzfObjTime;
  tqdiscoctl::Record record;
  record.subject = subject;
  record.authority = authority;
  record.type = type;
  record.discovered = OzfObjTime(LISTED_AT - age);
  record.expires = OzfObjTime(LISTED_AT + expiresIn);
  return record;
}

} // namespace tqtest
