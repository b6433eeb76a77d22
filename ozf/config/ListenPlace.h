// Where a program listens: an address and a port, or a socket in the file system.

#pragma once

#include "ozf/base/Export.h"

#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf
{

struct OZF_EXPORT ListenPlace
{
  std::string path;    // of the socket, absolute; else empty
  std::string address; // without brackets
  unsigned short port = 0;

  // Text is an absolute path, "127.0.0.1:80" or "[::1]:80". Nothing when it is none of these.
  static std::optional<ListenPlace> fromText(std::string const& text);

  // Whether nobody but this host can come there.
  bool isLocal() const;
};

} // namespace Quillon::Tessarine::Ozf
