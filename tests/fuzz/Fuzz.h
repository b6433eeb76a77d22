// What the fuzz targets share.
//
// A target is a file that says which properties hold for every input. A
// property that does not hold ends the process, so that libFuzzer keeps the
// input; so does whatever the sanitizers find, and a failed assertion.

#pragma once

#include "ozf/base/OzfString.h"
#include "ozf/log/Logger.h"
#include "ozf/xml/XmlStr.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

namespace fuzz
{

using namespace Quillon::Tessarine::Ozf;

inline constexpr XmlStr::Encoding ENCODINGS[] = {XmlStr::UTF_8, XmlStr::ISO_8859_1,
                                                 XmlStr::US_ASCII};

inline void require(bool holds, char const* property, std::string const& details = {})
{
  if (holds)
    return;
  std::fprintf(stderr, "Does not hold: %s\n%s\n", property, details.c_str());
  std::abort();
}

inline void requireEqual(std::string const& expected, std::string const& actual,
                         char const* property)
{
  require(expected == actual, property, "expected: " + expected + "\n  actual: " + actual);
}

inline std::string_view textOf(std::uint8_t const* data, std::size_t size)
{
  return {reinterpret_cast<char const*>(data), size};
}

// A number that the input decides, for choices that are not worth bytes of
// their own: the inputs stay plain documents.
inline std::uint32_t choiceOf(std::string_view input)
{
  std::uint32_t hash = 2166136261u;
  for (char const c : input)
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
  return hash ^ (hash >> 15);
}

template <class Object>
std::string written(Object const& object, XmlStr::Encoding encoding)
{
  std::ostringstream os;
  object.writeXml(os, encoding);
  require(os.good(), "an object writes itself");
  return os.str();
}

// The text is UTF-8 without control characters.
inline bool isPrintable(std::string_view text)
{
  while (!text.empty())
  {
    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    if (length == 0 || point < 0x20 || (point >= 0x7F && point < 0xA0))
      return false;
    text.remove_prefix(length);
  }
  return true;
}

// No plug-ins, no variables that command lines could name but one, and no log
// lines: a run makes millions of them.
inline void prepare()
{
  clearenv();
  setenv("TESSARINE_ROOT", "/nonexistent", 1);
  setenv("OZF_ASSERT", "abort", 1);
  LoggerFactory::setLevel(0);
}

} // namespace fuzz
