// What a service tells of its work in its discovery of itself.

#pragma once

#include <map>
#include <string>

namespace tqtest
{

inline std::map<std::string, std::string> const SERVICE_LOAD_FACTS = {
    {"Connections", "4"},        {"ConnectionsTaken", "70"}, {"ConnectionsRefused", "5"},
    {"OpenIterators", "2"},      {"OpenWriters", "1"},       {"WritesStored", "30"},
    {"WritesOutranked", "3"},    {"WritesFailed", "6"},      {"WritesTimed", "36"},
    {"WriteTime", "1500000"},    {"WritesWithin1ms", "1"},   {"WritesWithin10ms", "20"},
    {"WritesWithin100ms", "34"}, {"WritesWithin1s", "35"},   {"WritesWithin10s", "36"}};

} // namespace tqtest
