// Between the ORB and the sockets it listens on.
//
// An end point here is one of the ORB's own with every connection that it
// accepts wrapped, so that what a peer sends is seen before the ORB sees it and
// only whole requests cost a thread. It refuses connections when few descriptors
// are left, and those of an address that has a great many already.

#pragma once

#include <chrono>

namespace Quillon::Tessarine::Ozf
{

// What stands in for "giop:tcp" in an end point's text.
extern char const WATCHED_TCP[];

// Makes WATCHED_TCP known to the ORB, for good. Before the ORB comes up.
void registerWatchedTransport();

// Whether each end point that is open has come to wait for connections before the time is
// over. One for which the ORB could make no thread never does, and nobody would be told.
bool allListen(std::chrono::milliseconds limit);

} // namespace Quillon::Tessarine::Ozf
