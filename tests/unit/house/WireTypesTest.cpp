// The names of the types on the wire, which other hosts compare: what the IDL
// compiler gives out for them as type codes.

#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>

namespace
{

using Names = std::set<std::string>;

// "struct Remote/Discovery" for each type code that the IDL file defines, with
// the module that all are in taken off.
Names typesOf(std::string const& stem)
{
  TempDir const output;
  std::string const idl = TQ_SOURCE_DIR "/idl";
  std::string const command =
      "omniidl -bcxx -Wba -C" + output.path() + " -I" + idl + " " + idl + "/" + stem + ".idl";
  EXPECT_EQ(0, std::system(command.c_str())) << command;
  std::string const text = readText(output.path() + "/" + stem + "DynSK.cc");
  std::regex const code("PR_([a-z]+)_tc\\(\"IDL:Quillon/Tessarine/Ozf/DiscoverySvc/([^\"]*):1.0\"");
  Names names;
  for (std::sregex_iterator found(text.begin(), text.end(), code), end; found != end; ++found)
    names.insert((*found)[1].str() + ' ' + (*found)[2].str());
  // None has another version or is in another module.
  std::regex const any("PR_[a-z]+_tc\\(\"IDL:");
  auto const all = std::distance(std::sregex_iterator(text.begin(), text.end(), any), {});
  auto const known = std::distance(std::sregex_iterator(text.begin(), text.end(), code), {});
  EXPECT_EQ(all, known) << stem;
  return names;
}

} // namespace

TEST(WireTypesTest, WhatTheServiceExchangesKeepsItsNames)
{
  Names const types = typesOf("DiscoveryService");
  for (char const* const name :
       {"struct Remote/CollAttributes", "struct Remote/Discovery", "alias Remote/DiscoverySeq",
        "alias Remote/CollectionDataSeq", "interface Remote/DiscoveryIterator",
        "interface Remote/CollectionDataIterator", "interface Remote/RemoteWriter",
        "interface Remote/DiscoveryService"})
    EXPECT_TRUE(types.contains(name)) << name;
}

TEST(WireTypesTest, WhatTheModuleAroundItDefinesKeepsItsNames)
{
  Names const types = typesOf("DiscoveryTypes");
  for (char const* const name :
       {"struct DiscoveryResult", "enum DiscoveryStatus", "enum DiscoveryQuery",
        "enum AuthorityType", "enum CollectionType", "enum CollectionStorage"})
    EXPECT_TRUE(types.contains(name)) << name;
}
