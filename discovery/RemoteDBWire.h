// Between the library's records and what travels: attributes and names.

#pragma once

#include "discovery/DiscData.h"

#include <DiscoveryServiceC.h>

#include <cstddef>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Fills the wire form; null attributes give zeros. Times are whole seconds.
// timeToLive is the validity interval; a record that was read from the
// database has none but knows its expiry, and then timeToLive is the interval
// from which the receiver, who adds a quarter, comes to that expiry again.
TQ_EXPORT void toWire(CollectionAttributes const* attributes, Remote::CollAttributes& wire);

// New attributes, the caller's. Times beyond OzfObjTime::max() become it.
TQ_EXPORT CollectionAttributes* fromWire(Remote::CollAttributes const& wire);

// Takes the strings of a record over, which then has none.
TQ_EXPORT void moveRecord(Remote::Discovery& from, Remote::Discovery& to);

// The longest name that is taken from another host, in bytes.
inline constexpr std::size_t MAX_WIRE_NAME = 4096;

// Whether a Subject and an Authority can be made of these names, which came
// from another host: neither null, empty nor over-long.
TQ_EXPORT bool areUsableNames(char const* subject, char const* authority);

// The longest name, as shown, of a record that is taken in to be kept. Whoever
// lists all of them takes no more than RemoteDiscoveryIterator::MAX_RECORD_BYTES,
// and lists each registration twice, the explorer and its record in the cache:
// with longer names few peers could make the list unreadable for all.
inline constexpr std::size_t MAX_KEPT_NAME = 1024;

// Whether the names are usable and short enough to be kept.
TQ_EXPORT bool areKeepableNames(char const* subject, char const* authority);

// The size of a page, in bytes, beyond which it is handed out although the
// caller asked for more, and more than which is not asked for: a page must pass
// the ORB's message limit with room to spare, and its size comes from the
// network. A short page is not the end, so nothing is lost.
inline constexpr long MAX_PAGE_BYTES = 1L << 20;

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
