// The operations of an IDL file, as they are called on the wire.

#pragma once

#include "tests/support/TempDir.h"

#include <regex>
#include <set>
#include <string>

namespace tqtest
{

// Of all interfaces; attributes are two operations unless they are for reading.
inline std::set<std::string> operationsOfIdl(std::string const& path)
{
  static std::regex const COMMENT("//[^\n]*|/\\*[^]*?\\*/");
  static std::regex const INTERFACE("\\binterface\\s+\\w+[^{;]*\\{([^}]*)\\}");
  static std::regex const ATTRIBUTE("(readonly\\s+)?\\battribute\\b[^]*\\b(\\w+)\\s*$");
  static std::regex const OPERATION("(\\w+)\\s*\\([^]*\\)[^]*");
  std::string const text = std::regex_replace(readText(path), COMMENT, " ");
  std::set<std::string> operations;
  for (std::sregex_iterator found(text.begin(), text.end(), INTERFACE), none; found != none;
       ++found)
  {
    std::string const body = (*found)[1];
    for (std::size_t begin = 0, end = 0; (end = body.find(';', begin)) != std::string::npos;
         begin = end + 1)
    {
      std::string const declaration = body.substr(begin, end - begin);
      std::smatch parts;
      if (std::regex_search(declaration, parts, OPERATION))
        operations.insert(parts[1]);
      else if (std::regex_search(declaration, parts, ATTRIBUTE))
      {
        operations.insert("_get_" + parts[2].str());
        if (!parts[1].matched)
          operations.insert("_set_" + parts[2].str());
      }
      else
        operations.insert("not understood: " + declaration);
    }
  }
  return operations;
}

} // namespace tqtest
