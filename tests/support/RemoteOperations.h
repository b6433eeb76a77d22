// The names under which the remote store writes to the log.

#pragma once

namespace RemoteOperations
{

inline constexpr char CONNECT[] = "connectToRemoteDS";
inline constexpr char OPEN_READ[] = "RemoteCollectionData::openRead";
inline constexpr char OPEN_WRITE[] = "RemoteCollectionData::openWrite";
inline constexpr char WRITE[] = "RemoteCollectionData::writeCollection";
inline constexpr char PERSIST[] = "RemoteDiscovery::persist";
inline constexpr char FETCH[] = "RemoteDiscoveryIterator::RemoteDiscoveryIterator";

} // namespace RemoteOperations
