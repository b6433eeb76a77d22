// Payloads that show whether they are whole, whose they are and which of their
// writer's they are.

#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace tqtest
{

// FNV-1a: every byte counts, and it needs no library in the helpers.
inline std::uint64_t sealOf(std::string const& text)
{
  std::uint64_t hash = 14695981039346656037U;
  for (char const c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return hash;
}

inline std::string sealedPayload(std::string const& owner, std::uint64_t number, std::size_t size)
{
  std::string body(size, ' ');
  std::uint64_t state = number * 2654435761U + size;
  for (char& c : body)
  {
    state = state * 6364136223846793005U + 1442695040888963407U;
    c = static_cast<char>('a' + (state >> 59) % 26);
  }
  std::string const rest =
      owner + ' ' + std::to_string(number) + ' ' + std::to_string(size) + ' ' + body;
  return std::to_string(sealOf(rest)) + ' ' + rest;
}

// What is wrong with a payload of the owner; empty when it is whole, and then
// number is its number.
inline std::string flawOf(std::string const& payload, std::string const& owner,
                          std::uint64_t& number)
{
  std::istringstream is(payload);
  std::uint64_t seal = 0;
  std::string name;
  std::size_t size = 0;
  if (!(is >> seal >> name >> number >> size))
    return "no payload of ours: " + payload.substr(0, 80);
  if (name != owner)
    return "belongs to " + name + ", not to " + owner;
  if (payload != sealedPayload(name, number, size))
    return "torn: " + std::to_string(payload.size()) + " bytes, number " + std::to_string(number);
  return {};
}

// The payload as the text of a document, and out of one; what is none is left as it is.
inline std::string inXml(std::string const& payload) { return "<sealed>" + payload + "</sealed>"; }

inline std::string outOfXml(std::string const& document)
{
  constexpr std::size_t BEGIN = sizeof "<sealed>" - 1;
  constexpr std::size_t END = sizeof "</sealed>" - 1;
  if (!document.starts_with("<sealed>") || !document.ends_with("</sealed>"))
    return document;
  return document.substr(BEGIN, document.size() - BEGIN - END);
}

} // namespace tqtest
