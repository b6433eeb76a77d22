// Payloads for people.

#pragma once

#include <string>

namespace tqdiscoctl
{

// The document with one element a line, indented; elements that hold only text
// stay on one line, and those with text beside elements as they are. Returns false, with the
// reason, when text is not well-formed XML; result then holds nothing.
bool indentXml(std::string const& text, std::string& result, std::string& reason);

} // namespace tqdiscoctl
