// What the configuration comes to, for a person or a program.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf
{
class Configuration;
}

namespace Host
{

// A line for each key, and for each value of a list: key, value, default, and the file
// and line that the value comes from. "-" stands for what there is not.
std::string settingsAsTable(Quillon::Tessarine::Ozf::Configuration const& configuration);

// The same as a JSON array of objects, with null for what there is not.
std::string settingsAsJson(Quillon::Tessarine::Ozf::Configuration const& configuration);

} // namespace Host
