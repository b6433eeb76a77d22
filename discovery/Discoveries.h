// What the explorers of the fleet found, for programs that want facts and nothing of
// how they travel:
//
//   Discoveries discoveries;
//   for (auto const& item : discoveries.items("filesystem"))
//     if (item["Use"].number() > 0.8)
//       std::cout << item.subject() << ": " << item.name() << '\n';
//   for (auto const& problem : discoveries.problems())
//     std::cerr << problem.text << '\n';
//
// It stands on the research API (Researcher.h), and needs no more of a program than to
// release what it got before main ends. Nothing here throws for what another host or a
// file does; what memory is wanting for is std::bad_alloc.

#pragma once

#include "discovery/Export.h"
#include "discovery/ItemFacts.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/xml/OzfQuery.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Why something that was asked for is not there.
struct DiscoveryProblem
{
  enum class Fault
  {
    CONFIGURATION, // of this host: there is no master in it, or none that can be found
    MASTER,        // it, or the host that it names for a collection, gives no answer
    PAYLOAD,       // what an explorer stored cannot be read, or not to its end
    QUERY          // the caller's condition cannot be understood
  };

  Fault fault;
  std::string text; // a sentence for a person; names are made printable
};

// One fact of an item. Its values have the kind that the explorer describes (its
// filter data); where it describes none, a value is read as whatever is asked for. An
// accessor is absent when the fact is not known, is described as another kind, or its
// value cannot be read as that.
class TQ_EXPORT FoundFact
{
public:
  // value is null for a fact that is not known; attribute, of the description, is null
  // for one that is not described. Neither is owned, and both outlive it.
  FoundFact(std::string const* value, OzfQuery::Attribute const* attribute)
      : m_value(value), m_attribute(attribute)
  {
  }

  explicit operator bool() const noexcept { return m_value != nullptr; }

  // As the explorer wrote it, whatever the kind; empty when it is not known.
  std::string const& text() const noexcept;

  // Of numbers, sizes (bytes) and durations (seconds). A share of "41%" is 0.41.
  std::optional<double> number() const;
  std::optional<std::uint64_t> bytes() const; // of sizes
  std::optional<double> seconds() const;      // of durations
  std::optional<OzfObjTime> time() const;     // of times
  std::optional<bool> flag() const;           // of booleans

  // Null where the explorer does not describe it: kind, unit, and a text for people.
  OzfQuery::Attribute const* description() const noexcept { return m_attribute; }

private:
  bool isOf(std::initializer_list<OzfQuery::Type> kinds) const;

  std::string const* m_value;
  OzfQuery::Attribute const* m_attribute;
};

// One thing that an explorer found. A value: it stays as it is whatever becomes of where
// it came from. Any number of threads may read one.
class TQ_EXPORT FoundItem
{
public:
  // What the items of one discovery have in common.
  struct Origin
  {
    std::string subject;
    std::string authority;
    OzfObjTime discovered; // zero of what was made on demand
    OzfObjTime expires;    // likewise
    AutoDereference<OzfQuery> description;
  };

  FoundItem(std::shared_ptr<Origin const> origin, DiscoveredItem const& item);

  // Names are as they are shown (URI_SHOWN); values and names of items come from other
  // hosts and may hold anything.
  std::string const& name() const noexcept { return m_name; }
  std::string const& subject() const noexcept { return m_origin->subject; }
  std::string const& authority() const noexcept { return m_origin->authority; }
  OzfObjTime const& discovered() const noexcept { return m_origin->discovered; }
  OzfObjTime const& expires() const noexcept { return m_origin->expires; }

  // What the explorer says of a problem with this one thing; empty when there is none.
  std::string const& complaint() const noexcept { return m_complaint; }

  // The first fact of that name; the case of letters does not count. It is good as
  // long as the item.
  FoundFact operator[](std::string_view fact) const;

  // All of them, in the order in which they were written.
  ItemFacts const& facts() const noexcept { return m_facts; }

  // What the explorer wrote, where that is not made of facts; else empty.
  std::string const& text() const noexcept { return m_text; }

private:
  std::shared_ptr<Origin const> m_origin;
  std::string m_name;
  std::string m_complaint;
  ItemFacts m_facts;
  std::string m_text;
};

// The items that were asked for, read while they are walked through: one discovery at a
// time is in memory. Walked through once, by one thread at a time. It may outlive its
// session.
class TQ_EXPORT FoundItems
{
public:
  class Walk;

  class TQ_EXPORT Iterator
  {
  public:
    using iterator_concept = std::input_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = FoundItem;

    Iterator() = default;
    explicit Iterator(Walk* walk) : m_walk(walk) {}

    // Good until the iterator moves on.
    FoundItem const& operator*() const;
    FoundItem const* operator->() const { return &**this; }
    Iterator& operator++();
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const;

  private:
    Walk* m_walk = nullptr; // not owned
  };

  explicit FoundItems(std::unique_ptr<Walk> walk);
  ~FoundItems();
  FoundItems(FoundItems&& other) noexcept;
  FoundItems& operator=(FoundItems&& other) noexcept;

  // Each blocks for the request time-out (30 seconds) at worst, and so does ++.
  Iterator begin();
  std::default_sentinel_t end() const noexcept { return {}; }

private:
  std::unique_ptr<Walk> m_walk;
};

// A session: reads discoveries as long as one of this process is there. The master is
// that of the configuration (SERVER). Pages are of a sensible size unless it says
// otherwise. Not for a process that runs the discovery service, and not beside
// initDiscoveryResearch. One thread at a time; several sessions are several threads'.
class TQ_EXPORT Discoveries
{
public:
  // Of one query so many are kept.
  static constexpr std::size_t MOST_PROBLEMS = 100;

  // Calls no other host. What is wrong with the configuration is in problems().
  Discoveries();
  ~Discoveries();
  Discoveries(Discoveries&& other) noexcept;
  Discoveries& operator=(Discoveries&& other) noexcept;

  // The items of every discovery whose authority and subject match the patterns ('*' is
  // any text; letter case counts), of those the ones that answer the query
  // (docs/query-language.md), all of them without one. What hosts make on demand is
  // had of the master alone.
  //
  // After twenty collections in a row that could not be had the rest is not tried.
  FoundItems items(std::string const& authority, std::string const& subject = "*",
                   std::string const& query = {});

  // What went wrong with the items that were asked for last, as far as they have been
  // walked through: nothing is missing where there is none. The log has more.
  std::vector<DiscoveryProblem> const& problems() const noexcept;

private:
  struct Session;
  std::shared_ptr<Session> m_session;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
