// Discoveries for the benchmarks, all alike but for the subject's name.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"

#include <string>

namespace tqbench
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

inline constexpr char AUTHORITY[] = "filesystem";
inline constexpr AuthorityType TYPE = AT_TQUCLIENT;

// 1 KiB.
std::string const& payload();

std::string subjectName(std::size_t number);

// "2 filesystem client-000007.example.net", without the extension.
std::string baseName(std::size_t number);

// Gives a new discovery its authority, its subject and attributes that hold
// for a year.
void describe(Discovery& discovery, std::size_t number);

// The metadata document of the discovery of that number.
std::string document(std::size_t number);

// Fills the database of the product root with the discoveries 0 to count - 1,
// both files of each, without a flush for each of them, and has everything on
// the disk at the end.
void makeDatabase(std::string const& root, std::size_t count);

// Settles root as the product's root and readies the process's database below
// it; its directory. Once a process.
std::string openDatabase(std::string const& root);

} // namespace tqbench
