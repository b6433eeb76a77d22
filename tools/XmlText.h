// What can be made of payloads, and payloads for people.

#pragma once

#include <string>

namespace tqdiscoctl
{

// Whether it is a well-formed document; the reason when it is not.
bool isXml(std::string const& text, std::string& reason);

// The document with one element a line, indented by up to 32 levels; elements that
// hold only text stay on one line, and those with text beside elements as they are. Returns false,
// with the reason, when text is not well-formed XML; result then holds nothing.
bool indentXml(std::string const& text, std::string& result, std::string& reason);

} // namespace tqdiscoctl
