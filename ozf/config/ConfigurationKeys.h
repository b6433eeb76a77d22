// The keys of tq.conf that take numbers: what they may be, and what holds
// without them. docs/operations.md tells what each is for, and
// ConfigurationCheck.cpp has the others.

#pragma once

#include <cstdint>
#include <limits>
#include <string>

namespace Quillon::Tessarine::Ozf
{

struct IntegerKey
{
  char const* name; // one that ends in '.' is the first part of a key of two parts
  long low;
  long high;
  long byDefault;
};

// For messages: "whole numbers from 0 to 6".
inline std::string acceptedBy(IntegerKey const& key)
{
  return "whole numbers from " + std::to_string(key.low) + " to " + std::to_string(key.high);
}

inline constexpr long MOST_OF_32_BITS = std::numeric_limits<std::int32_t>::max();

inline constexpr IntegerKey LOG_LEVEL_KEY{"LOG_LEVEL", 0, 6, 1};

// The file of the audit log; none when it is absent.
inline constexpr char AUDIT_FILE_KEY[] = "AUDIT_FILE";

// ORB_PORT.<service>; zero: HostRole.h says what holds.
inline constexpr IntegerKey ORB_PORT_KEY{"ORB_PORT.", 1, 65535, 0};

// HOST_ADDRESS.<host>
inline constexpr char HOST_ADDRESS_KEY[] = "HOST_ADDRESS.";

// Whether connections are encrypted and proven, and by what.
struct TlsKeys
{
  char const* mode;
  char const* certificate;
  char const* key;
  char const* authorities;
};
inline constexpr TlsKeys TLS_KEYS{"TLS", "TLS_CERTIFICATE", "TLS_KEY", "TLS_CA"};

// Bytes a page that this host asks for; zero: nothing is asked for.
inline constexpr IntegerKey COLLECTION_PAGE_SIZE_KEY{"COLLECTION_PAGE_SIZE", 1, MOST_OF_32_BITS, 0};

// Bytes a call in which this host sends a payload to the master.
inline constexpr IntegerKey COLLECTION_WRITE_SIZE_KEY{"COLLECTION_WRITE_SIZE", 1, 1L << 20, 1024};

// Records a page that this host asks for; zero: nothing is asked for.
inline constexpr IntegerKey DISCOVERY_PAGE_SIZE_KEY{"DISCOVERY_PAGE_SIZE", 1, MOST_OF_32_BITS, 0};

// Bytes for what metadata documents say.
inline constexpr IntegerKey METADATA_CACHE_KEY{"METADATA_CACHE", 0, 1L << 40, 64L << 20};

// What an answer from another host may take in all.
inline constexpr IntegerKey READ_LIMIT_KEY{"READ_LIMIT_SECONDS", 1, MOST_OF_32_BITS, 3600};

} // namespace Quillon::Tessarine::Ozf
