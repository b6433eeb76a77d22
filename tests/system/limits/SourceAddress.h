// From which address this process calls services on loopback addresses.

#pragma once

#include <string>

// While it lives, connections that the process opens to loopback addresses come from
// the address. SourceAddress.cpp defines the function of the C library that it stands
// for; the dynamic linker prefers that of the program to the library's own.
class SourceAddress
{
public:
  explicit SourceAddress(std::string const& address);
  ~SourceAddress();
  SourceAddress(SourceAddress const&) = delete;
  SourceAddress& operator=(SourceAddress const&) = delete;
};
