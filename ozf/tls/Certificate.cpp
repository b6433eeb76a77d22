#include "ozf/tls/Certificate.h"

#include "ozf/base/Display.h"
#include "ozf/config/IpAddress.h"

#include <arpa/inet.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MOST_SHOWN = 8;
constexpr std::size_t LONGEST_SHOWN = 100;

std::string textOf(ASN1_STRING const* string)
{
  return {reinterpret_cast<char const*>(ASN1_STRING_get0_data(string)),
          static_cast<std::size_t>(ASN1_STRING_length(string))};
}

// Empty for what is no address.
std::string addressOf(ASN1_STRING const* bytes)
{
  char text[INET6_ADDRSTRLEN] = "";
  int const family = ASN1_STRING_length(bytes) == 4 ? AF_INET : AF_INET6;
  if (family == AF_INET6 && ASN1_STRING_length(bytes) != 16)
    return {};
  inet_ntop(family, ASN1_STRING_get0_data(bytes), text, sizeof text);
  return text;
}

std::vector<std::string> alternativeNames(X509 const* certificate)
{
  std::vector<std::string> names;
  std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> const all(
      static_cast<GENERAL_NAMES*>(
          X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
      GENERAL_NAMES_free);
  for (int i = 0; all && i < sk_GENERAL_NAME_num(all.get()); ++i)
  {
    GENERAL_NAME const* const name = sk_GENERAL_NAME_value(all.get(), i);
    if (name->type == GEN_DNS)
      names.push_back(textOf(name->d.dNSName));
    else if (name->type == GEN_IPADD)
    {
      if (std::string address = addressOf(name->d.iPAddress); !address.empty())
        names.push_back(std::move(address));
    }
  }
  return names;
}

std::string commonName(X509_NAME const* name)
{
  int const at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
  return at < 0 ? std::string() : textOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
}

std::string shownWhole(X509_NAME const* name)
{
  std::string text = commonName(name);
  char whole[LONGEST_SHOWN + 1] = "";
  if (text.empty() && X509_NAME_oneline(name, whole, sizeof whole) != nullptr)
    text = whole;
  return text.empty() ? "nobody" : shownName(text);
}

std::time_t timeOf(ASN1_TIME const* time)
{
  std::tm parts{};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

} // namespace

Certificate::Certificate(X509* certificate)
    : m_certificate(certificate, X509_free),
      m_names(alternativeNames(certificate)),
      m_hasAlternatives(!m_names.empty()),
      m_begin(timeOf(X509_get0_notBefore(certificate))),
      m_end(timeOf(X509_get0_notAfter(certificate)))
{
  if (m_names.empty())
    if (std::string name = commonName(X509_get_subject_name(certificate)); !name.empty())
      m_names.push_back(std::move(name));
}

std::string Certificate::shownNames() const
{
  std::string text;
  for (std::size_t i = 0; i < m_names.size() && i < MOST_SHOWN; ++i)
    text += (i == 0 ? "" : ", ") + shownName(m_names[i]);
  if (m_names.size() > MOST_SHOWN)
    text += " and " + std::to_string(m_names.size() - MOST_SHOWN) + " more";
  return text.empty() ? "nobody" : text;
}

std::string Certificate::shownSubject() const { return shownWhole(X509_get_subject_name(get())); }

std::string Certificate::shownIssuer() const { return shownWhole(X509_get_issuer_name(get())); }

bool Certificate::names(std::string const& host) const
{
  if (IpAddress::fromText(host))
    return X509_check_ip_asc(get(), host.c_str(), 0) == 1;
  std::string name = host;
  if (name.ends_with('.'))
    name.pop_back();
  // One that begins with a dot would stand for every host of that domain.
  if (name.empty() || name.front() == '.')
    return false;
  unsigned const flags = X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS |
                         (m_hasAlternatives ? X509_CHECK_FLAG_NEVER_CHECK_SUBJECT : 0U);
  return X509_check_host(get(), name.data(), name.size(), flags, nullptr) == 1;
}

bool Certificate::mayServe() const
{
  return X509_check_purpose(get(), X509_PURPOSE_SSL_SERVER, 0) == 1;
}

bool Certificate::mayCall() const
{
  return X509_check_purpose(get(), X509_PURPOSE_SSL_CLIENT, 0) == 1;
}

std::string shownTime(std::time_t time)
{
  std::tm parts{};
  char text[64] = "";
  if (gmtime_r(&time, &parts) != nullptr)
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
  return text;
}

std::string shownName(std::string const& name)
{
  return displayText(name.substr(0, LONGEST_SHOWN),
                     [](std::string& result, std::string_view bytes, char32_t)
                     { appendHex(result, "%", bytes); });
}

} // namespace Quillon::Tessarine::Ozf
