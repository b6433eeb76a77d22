// What the product knows of a key of the configuration. The keys themselves are in
// ConfigurationKeys.h.

#pragma once

#include "ozf/base/Export.h"

#include <span>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// What a value has to be.
enum class KeyKind
{
  HOST,        // a host name or an address
  HOSTS,       // one or several
  HOST_NAME,   // a host name
  ADDRESSES,   // one or several
  OWN_ADDRESS, // one to listen on
  BOOLEAN,
  NUMBER,
  SPAN, // of time
  PATH, // an absolute one
  LOG_FILE,
  LOG_PATTERN,
  NAMES,  // patterns of names
  PEERS,  // entries of a list of peers
  CHOICE, // one of a few words
  LISTEN  // where to listen: an address and a port, or a socket's path
};

enum class KeyUse
{
  ONCE,
  AS_LIST // several lines make a list
};

// When a changed value takes hold.
enum class KeyHolds
{
  FROM_RELOAD,
  FROM_START,  // of the service
  WITHIN_ROLE, // from a reload, unless this host would become the master by it, or be it no more
};

// A second part that a key of two parts may have, with a number where the key says
// that it has one.
struct KeyPart
{
  char const* name;
  long number;
};

// Immutable, and never destroyed.
struct ConfigurationKey
{
  char const* name;      // one that ends in '.' is the first part of a key of two parts
  char const* part = ""; // what the second part is the name of: "host"

  KeyKind kind = KeyKind::HOST;
  KeyUse use = KeyUse::ONCE;
  KeyHolds holds = KeyHolds::FROM_RELOAD;

  // What a NUMBER may be.
  long low = 0;
  long high = 0;

  // What holds without a word in the configuration: of a NUMBER (below low: nothing),
  // of a SPAN in seconds (0: nothing), and of a BOOLEAN (0: no) ...
  long number = 0;
  // ... and of the other kinds, where there is such a thing.
  char const* word = "";

  // The words of a CHOICE, with spaces between them.
  char const* choices = "";

  // The second parts that are known, whether there are no others, and whether their
  // numbers stand in for the one above.
  std::span<KeyPart const> parts = {};
  bool hasNoOtherParts = false;
  bool hasNumbersOfParts = false;

  // For the manual: what stands for the value, and what the key is for. That holds
  // marks of its language; bounds, default and when it holds are added to it.
  char const* value = "";
  char const* text = "";

  constexpr bool hasTwoParts() const { return std::string_view(name).ends_with('.'); }

  // The number that holds for one of the second parts.
  constexpr long numberOf(std::string_view second) const
  {
    if (hasNumbersOfParts)
      for (KeyPart const& known : parts)
        if (second == known.name)
          return known.number;
    return number;
  }
};

// The key as it is shown where any is meant: "ORB_PORT.<service>".
OZF_EXPORT std::string shownKey(ConfigurationKey const& key);

// Whether the value is of the key's kind and within its bounds.
OZF_EXPORT bool isAccepted(ConfigurationKey const& key, std::string const& value);

// For messages: "whole numbers from 0 to 6".
OZF_EXPORT std::string acceptedBy(ConfigurationKey const& key);

// The second parts that are known, for messages: "filesystem, host and volume".
OZF_EXPORT std::string acceptedParts(ConfigurationKey const& key);

// What holds without a word in the configuration, as it would be written there; of a
// key of two parts for this second one. Empty when nothing does.
OZF_EXPORT std::string defaultOf(ConfigurationKey const& key, std::string const& second = {});

// The key whose name this is, or the first part of it; null when there is none.
OZF_EXPORT ConfigurationKey const* findKey(std::string_view name);

} // namespace Quillon::Tessarine::Ozf
