#include "discovery/OperationNeeds.h"

#include <algorithm>
#include <iterator>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

struct OperationNeed
{
  std::string_view operation;
  CallNeed need;
};

// Who may do anything at all may ask what an object is.
constexpr unsigned ANYTHING = MAY_READ | MAY_WRITE | MAY_CONTROL;

// The master collects what the hosts produce on demand, and asks them to run their
// explorers again; while it does the one, the host may have to list what the master
// knows, and after the other it looks for requests among that, for which those who
// write are let through (DiscoveryService_i::queryDiscoveries). The operations of
// iterators are those of lists and payloads alike: each iterator keeps to who opened it.
constexpr CallNeed LISTING{
    .rights = MAY_READ, .some = MAY_WRITE, .ofMaster = true, .ofAsked = true};

constexpr OperationNeed NEEDS[] = {
    {"queryDiscoveries", LISTING},
    {"getNextPage", LISTING},
    {"_get_pageSize", LISTING},
    {"_set_pageSize", LISTING},
    {"release", LISTING},
    {"getCollectionData", {.rights = MAY_READ, .ofMaster = true}},

    {"putCollection", {.rights = MAY_WRITE}},
    {"put", {.rights = MAY_WRITE}},
    {"close", {.rights = MAY_WRITE}},
    {"registerExplorer", {.rights = MAY_WRITE}},

    {"terminate", {.rights = MAY_CONTROL}},
    {"restartLocalPushTimer", {.rights = MAY_CONTROL, .ofMaster = true}},
    {"restartAllPushTimers", {.rights = MAY_CONTROL}},

    {"_is_a", {.rights = ANYTHING, .ofMaster = true, .ofAsked = true}},
    {"_non_existent", {.rights = ANYTHING, .ofMaster = true, .ofAsked = true}},
    {"_not_existent", {.rights = ANYTHING, .ofMaster = true, .ofAsked = true}},
    {"_interface", {.rights = ANYTHING, .ofMaster = true, .ofAsked = true}},
};

} // namespace

CallNeed const* needOf(std::string_view operation)
{
  auto const* const found =
      std::find_if(std::begin(NEEDS), std::end(NEEDS),
                   [operation](OperationNeed const& each) { return each.operation == operation; });
  return found == std::end(NEEDS) ? nullptr : &found->need;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
