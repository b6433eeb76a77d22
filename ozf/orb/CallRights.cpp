#include "ozf/orb/CallRights.h"

#include "ozf/base/Replaceable.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostAnswers.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/PeerList.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/SelfConnection.h"
#include "ozf/tls/Certificate.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <set>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "CallRights";

// Of one kind of right: who has it.
struct Rule
{
  ConfigurationKey const& key;
  PeerList list = {};
  bool isConfigured = false;

  // For log lines: "ALLOW_CONTROL = local".
  std::string text() const
  {
    return isConfigured ? std::string(key.name) + " = " + list.text()
                        : list.text() + ", without " + key.name;
  }
};

struct Rules
{
  Rule read{configKey("ALLOW_READ")};
  Rule write{configKey("ALLOW_WRITE")};
  Rule control{configKey("ALLOW_CONTROL")};
  Rule writeAs{configKey("ALLOW_WRITE_AS")};
  std::shared_ptr<Rules const> former = {}; // what these do not give either, if any

  Rules()
  {
    std::string mistake;
    for (Rule* const rule : all())
      rule->list = *PeerList::parse({rule->key.word}, mistake);
  }

  std::array<Rule*, 4> all() { return {&read, &write, &control, &writeAs}; }

  bool take(Configuration const& configuration, std::string& error)
  {
    for (Rule* const rule : all())
    {
      auto const lines = configuration.list(rule->key);
      if (lines.empty())
        continue;
      std::string mistake;
      auto list = PeerList::parse(lines, mistake);
      if (!list)
      {
        error = std::string(rule->key.name) + " of " + configuration.path() + " has " + mistake +
                "; accepted: " + PEER_LIST_ENTRIES;
        return false;
      }
      rule->list = std::move(*list);
      rule->isConfigured = true;
    }
    return true;
  }

  using Holds = bool (PeerList::*)(Caller const&) const;

  bool have(CallRight right, Caller const& caller, Holds holds) const
  {
    if (former && !former->have(right, caller, holds))
      return false;
    auto const isIn = [&](Rule const& rule) { return (rule.list.*holds)(caller); };
    switch (right)
    {
    case MAY_READ:
      return isIn(read);
    case MAY_WRITE:
      return isIn(write) || (writeAs.isConfigured && isIn(writeAs));
    default:
      return isIn(control);
    }
  }

  bool allowToWriteAs(Caller const& caller, std::string const& host) const
  {
    if (!write.isConfigured && !writeAs.isConfigured)
      return true;
    if (caller.names().empty() ? caller.isHost(host) : caller.isProvenToBe(host))
      return true;
    return (caller.isThisHost() && isOwnHostName(host)) || writeAs.list.holds(caller);
  }

  std::string text(unsigned rights) const
  {
    std::string text;
    for (auto const& [right, rule] :
         {std::pair{MAY_READ, &read}, {MAY_WRITE, &write}, {MAY_CONTROL, &control}})
      if ((rights & right) != 0)
        text += (text.empty() ? "" : "; ") + rule->text();
    return text;
  }
};

struct Current
{
  Replaceable<Rules> rules{std::make_shared<Rules const>()};
  std::atomic<std::uint64_t> generation{1}; // of the rules; changed after them
  std::atomic<CallNeeds> needs{nullptr};
  std::mutex mutex; // of what follows
  std::multiset<std::string> asked;
};

// Never destroyed: calls may end after the statics of the process.
Current& current()
{
  static auto* const one = new Current;
  return *one;
}

bool isAsked(Caller const& caller)
{
  std::set<std::string> hosts;
  {
    std::lock_guard const guard(current().mutex);
    hosts = {current().asked.begin(), current().asked.end()};
  }
  return std::any_of(hosts.begin(), hosts.end(),
                     [&](std::string const& host) { return caller.isHost(host); });
}

Caller callerOf(Peer const& peer) { return {peer.address, peer.reached, peer.names}; }

// Of the request that the thread has received last.
thread_local std::string lack;

// Whether one of the rights is the caller's; those that stay so are added to kept.
bool hasOne(Rules const& rules, unsigned rights, Caller const& caller, std::uint64_t& kept)
{
  constexpr CallRight ALL[] = {MAY_READ, MAY_WRITE, MAY_CONTROL};
  for (CallRight const right : ALL)
    if ((rights & right) != 0 && rules.have(right, caller, &PeerList::holdsForGood))
    {
      kept |= right;
      return true;
    }
  return std::any_of(std::begin(ALL), std::end(ALL),
                     [&](CallRight right) {
                       return (rights & right) != 0 && rules.have(right, caller, &PeerList::holds);
                     });
}

bool takeRules(bool besideTheFormer, std::string& error)
{
  auto rules = std::make_shared<Rules>();
  if (!rules->take(*getConfiguration(), error))
    return false;
  if (besideTheFormer)
    rules->former = current().rules.get();
  current().rules.replace(std::move(rules));
  ++current().generation;
  return true;
}

// kept: the generation of the rules, and behind it the rights found so far.
constexpr int RIGHTS_BITS = 3;

} // namespace

void setCallNeeds(CallNeeds needs) noexcept { current().needs = needs; }

bool setUpCallRights(std::string& error) { return takeRules(false, error); }

bool tightenCallRights(std::string& error) { return takeRules(true, error); }

bool mayWriteAs(Peer const& peer, std::string const& host, std::string& reason)
{
  auto const rules = current().rules.get();
  Caller const caller = callerOf(peer);
  for (Rules const* each = rules.get(); each != nullptr; each = each->former.get())
    if (!each->allowToWriteAs(caller, host))
    {
      reason = each->writeAs.text();
      return false;
    }
  return true;
}

std::string const& lackOfCall() noexcept
{
  static std::string const nothing;
  return currentPeer() == nullptr ? nothing : lack;
}

AskedHost::AskedHost(std::string const& host) : m_host(host)
{
  std::lock_guard const guard(current().mutex);
  current().asked.insert(m_host);
}

AskedHost::~AskedHost()
{
  std::lock_guard const guard(current().mutex);
  current().asked.erase(current().asked.find(m_host));
}

std::string shownPeer(Peer const& peer)
{
  constexpr std::size_t MOST_SHOWN = 3;
  std::string text = peer.address.empty() ? "this service" : peer.address;
  for (std::size_t i = 0; i < peer.names.size() && i < MOST_SHOWN; ++i)
    text += (i == 0 ? " (" : ", ") + shownName(peer.names[i]);
  if (peer.names.size() > MOST_SHOWN)
    text += ", ...";
  return text + (peer.names.empty() ? "" : ")");
}

void refuseCall(Peer const& peer, char const* operation, AuditedCall const& call,
                std::string const& reason)
{
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, operation,
          "Refused a call of " << shownPeer(peer) << ": " << reason);
  auditRefusal(&peer, call, reason);
  throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO);
}

void postponeCall(Peer const& peer, char const* operation, AuditedCall const& call,
                  TooManyLookUps const& reason)
{
  std::string const text = std::string("its host cannot be looked up now: ") + reason.what();
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, operation,
          "Refused a call of " << shownPeer(peer) << ": " << text);
  auditRefusal(&peer, call, text);
  throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
}

void requireRight(Peer const& peer, int descriptor, char const* operation, std::uint64_t& kept)
{
  static constexpr CallNeed UNKNOWN{MAY_CONTROL};
  Current& now = current();
  CallNeeds const needs = now.needs.load();
  if (needs == nullptr)
    return;
  lack.clear();
  CallNeed const* const known = needs(operation);
  CallNeed const& need = known == nullptr ? UNKNOWN : *known;
  std::uint64_t const generation = now.generation.load();
  if (kept >> RIGHTS_BITS != generation)
    kept = generation << RIGHTS_BITS;
  if ((kept & need.rights) != 0)
    return;

  // What is not granted is looked at each time: addresses of hosts change.
  constexpr std::size_t LONGEST_SHOWN = 64;
  AuditedCall const call{std::string_view(operation).substr(0, LONGEST_SHOWN)};
  auto const rules = now.rules.get();
  std::string reason;
  try
  {
    Caller const caller = callerOf(peer);
    if (hasOne(*rules, need.rights, caller, kept))
      return;
    bool const isLocal = caller.isThisHost();
    if ((need.ofMaster && !isLocal && caller.isMaster()) || (need.ofAsked && isAsked(caller)) ||
        (isLocal && isConnectedWithItself(descriptor)))
      return;
    reason = (known == nullptr ? "an operation that there is not" : std::string(operation)) +
             " is for " + rules->text(need.rights);
    if (hasOne(*rules, need.some, caller, kept))
    {
      lack = reason;
      return;
    }
  }
  catch (TooManyLookUps const& tooMany)
  {
    postponeCall(peer, "requireRight", call, tooMany);
  }
  refuseCall(peer, "requireRight", call, reason);
}

} // namespace Quillon::Tessarine::Ozf
