// Between the ORB and the sockets it listens on.
//
// An end point here is one of the ORB's own with every connection that it
// accepts wrapped, so that what a peer sends is seen before the ORB sees it and
// only whole requests cost a thread. It refuses connections when few descriptors
// are left, and those of an address that has a great many already.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf
{

// What stands in for "giop:tcp" in an end point's text.
extern char const WATCHED_TCP[];

// Makes WATCHED_TCP known to the ORB, for good. Before the ORB comes up.
void registerWatchedTransport();

} // namespace Quillon::Tessarine::Ozf
