// The keys of tq.conf that several rooms know, and all that take numbers: what
// those may be, and what holds without them. docs/operations.md tells what each is for, and
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

// Whether a crash may leave the key of TLS behind.
inline constexpr char CORE_DUMPS_KEY[] = "CORE_DUMPS";

// Lists of peers: who may do what, and who may write in the name of other hosts.
struct AllowKeys
{
  char const* read;
  char const* write;
  char const* control;
  char const* writeAs;
};
inline constexpr AllowKeys ALLOW_KEYS{"ALLOW_READ", "ALLOW_WRITE", "ALLOW_CONTROL",
                                      "ALLOW_WRITE_AS"};

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

// What peers may have of this service, in all and each (Limits.h). Where zero is
// allowed it is no limit, and no wait for LIMIT_REQUEST_WAIT.

// Connections; those of one peer besides no more than half of what there may be.
inline constexpr IntegerKey LIMIT_CONNECTIONS_KEY{"LIMIT_CONNECTIONS", 0, 1'000'000, 0};
inline constexpr IntegerKey LIMIT_PEER_CONNECTIONS_KEY{"LIMIT_PEER_CONNECTIONS", 0, 1'000'000,
                                                       4096};

// Calls in progress.
inline constexpr IntegerKey LIMIT_PEER_CALLS_KEY{"LIMIT_PEER_CALLS", 1, 500, 400};

// Requests a second, and the milliseconds that one waits for its turn at most.
inline constexpr IntegerKey LIMIT_PEER_REQUESTS_KEY{"LIMIT_PEER_REQUESTS", 0, 1'000'000, 0};
inline constexpr IntegerKey LIMIT_REQUEST_WAIT_KEY{"LIMIT_REQUEST_WAIT", 0, 20'000, 2000};

// Iterators that are open, of lists and of payloads.
inline constexpr IntegerKey LIMIT_ITERATORS_KEY{"LIMIT_ITERATORS", 0, 1'000'000, 1024};
inline constexpr IntegerKey LIMIT_PEER_ITERATORS_KEY{"LIMIT_PEER_ITERATORS", 0, 1'000'000, 0};

// Writers that are open.
inline constexpr IntegerKey LIMIT_WRITERS_KEY{"LIMIT_WRITERS", 0, 100'000, 256};
inline constexpr IntegerKey LIMIT_PEER_WRITERS_KEY{"LIMIT_PEER_WRITERS", 0, 100'000, 32};

// Announced explorers. A list of more would be longer than readers take.
inline constexpr IntegerKey LIMIT_REGISTRATIONS_KEY{"LIMIT_REGISTRATIONS", 1, 50'000, 50'000};
inline constexpr IntegerKey LIMIT_PEER_REGISTRATIONS_KEY{"LIMIT_PEER_REGISTRATIONS", 0, 50'000, 0};

// Bytes of payloads: that a peer stores within a day, and of one.
inline constexpr IntegerKey LIMIT_PEER_DAY_BYTES_KEY{"LIMIT_PEER_DAY_BYTES", 0, 1L << 50, 0};
inline constexpr IntegerKey LIMIT_PAYLOAD_KEY{"LIMIT_PAYLOAD", 0, 1L << 40, 256L << 20};

// Bytes of memory for lists of other hosts' discoveries that readers have not fetched.
inline constexpr IntegerKey LIMIT_ANSWERS_KEY{"LIMIT_ANSWERS", 1L << 20, 1L << 40, 512L << 20};

} // namespace Quillon::Tessarine::Ozf
