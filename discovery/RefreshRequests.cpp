#include "discovery/RefreshRequests.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCall.h"
#include "discovery/ExplorerGroup.h"
#include "discovery/ExplorerRuns.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/base/OzfHostname.h"

#include <algorithm>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "RefreshRequests";
constexpr char OPERATION[] = "RefreshRequests::apply";

// The requests of a fleet live for minutes; more than this is no fleet's.
constexpr int MOST_READ = 10000;

// Names match in any letter case, so a request is the same one in any.
std::string lowerCase(std::string name)
{
  std::transform(name.begin(), name.end(), name.begin(), asciiLower);
  return name;
}

bool isAskedFor(std::string const& request, std::string const& authority)
{
  return request == REFRESH_AUTHORITY ||
         equalIgnoringCase(request, std::string(REFRESH_AUTHORITY) + '.' + authority);
}

// The one authority that a request names; empty when it is for all.
std::string authorityOf(std::string const& request)
{
  constexpr auto PREFIX = std::string_view(REFRESH_AUTHORITY).size() + 1; // and the dot
  return request.size() > PREFIX ? request.substr(PREFIX) : std::string();
}

// The groups that stand for an explorer of the authority.
std::vector<ExplorerGroup*> groupsOf(std::string const& authority, ExplorerSet const& explorers)
{
  std::vector<ExplorerGroup*> groups;
  for (auto const& entry : explorers)
    if (auto* const group = dynamic_cast<ExplorerGroup*>(entry->getExplorer());
        group != nullptr && !authority.empty() && group->standsFor(authority))
      groups.push_back(group);
  return groups;
}

} // namespace

bool RefreshRequests::isNew(std::string const& authority, std::string const& subject,
                            OzfObjTime const& made)
{
  auto const [known, added] =
      m_obeyed.try_emplace({lowerCase(authority), lowerCase(subject)}, made);
  if (added || known->second == made)
    return added;
  known->second = made;
  return true;
}

void RefreshRequests::obey(Query const& query, ExplorerSet const& explorers)
{
  std::uint64_t const calls = m_calls;
  if (calls == m_seen)
    return;
  AutoDereference<DiscoveryIterator> const requests(query());
  if (requests)
    apply(*requests, explorers);
  // Otherwise a request may be among those that were not to be had.
  if (requests && !requests->isIncomplete())
    m_seen = calls;
}

void RefreshRequests::apply(DiscoveryIterator& requests, ExplorerSet const& explorers)
{
  OzfHostname local;
  local.setLocal();
  for (int read = 0; read < MOST_READ;)
  {
    AutoDereference<Discovery> const request(requests.getNext());
    if (!request)
      return;
    // A collection on demand has no attributes; these come first, in any number.
    if (request->getAttributes() == nullptr || request->getAuthority()->getType() != AT_EXTSRC)
      continue;
    ++read;
    std::string const subject = request->getSubject()->getName().str();
    std::string const authority = request->getAuthority()->getName().str();
    if (subject != REFRESH_ALL_HOSTS && !equalIgnoringCase(subject, local.exportNarrow()))
      continue;
    std::vector<ExplorerPush*> asked;
    for (auto const& entry : explorers)
      if (auto* const explorer = dynamic_cast<ExplorerPush*>(entry->getExplorer());
          explorer != nullptr && isAskedFor(authority, entry->getAuthority()->getName().str()) &&
          !(entry->getRecord() && getExplorerRuns().isLate(*entry->getRecord())))
        asked.push_back(explorer);
    auto const groups = groupsOf(authorityOf(authority), explorers);
    // Only what there are explorers for is kept in mind.
    if ((asked.empty() && groups.empty()) ||
        !isNew(authority, subject, request->getAttributes()->getDiscoveryTime()))
      continue;
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "Obeying the request " << authority << " about " << subject);
    for (ExplorerPush* const explorer : asked)
      callExplorer(*explorer, SOURCE, OPERATION,
                   [explorer] { explorer->setLastExplorationTime(OzfObjTime()); });
    for (ExplorerGroup* const group : groups)
      group->makeDue(authorityOf(authority));
  }
}

RefreshRequests& getRefreshRequests()
{
  static auto* const instance = new RefreshRequests;
  return *instance;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
