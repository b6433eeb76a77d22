// Under which authority filter data is stored.

#pragma once

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What stands behind the authority of an explorer whose data is produced on
// demand: a request for a collection of that authority itself meets the
// explorer, whatever type it names.
inline constexpr char FILTER_DATA_SUFFIX[] = "-filter";

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
