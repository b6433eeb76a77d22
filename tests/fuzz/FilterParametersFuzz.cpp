// Filter parameters. An input that begins with '<' is a document: what is read
// and written again is read as the same. Any other is a query in the first
// line and an argument of the job in each further one: what is written is read
// back as it was.

#include "tests/fuzz/Fuzz.h"

#include "discovery/FilterParameters.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace
{

using namespace fuzz;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

std::string describe(FilterParameters const& parameters)
{
  std::string text = "query [" + parameters.getQueryString().str() + ']';
  if (parameters.getJobInfo() == nullptr)
    return text + " no job";
  for (std::string const& argument : parameters.getJobInfo()->getArguments())
    text += " [" + argument + ']';
  return text;
}

// What XML can carry as it is.
bool isXmlText(std::string_view text)
{
  while (!text.empty())
  {
    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    bool const control = point < 0x20 && point != '\t' && point != '\n' && point != '\r';
    if (length == 0 || control || point == 0xFFFE || point == 0xFFFF)
      return false;
    text.remove_prefix(length);
  }
  return true;
}

// The one thing that cannot be carried: the name of a variable there is.
bool namesVariable(std::string const& argument)
{
  return argument.find("$TESSARINE_ROOT") != std::string::npos ||
         argument.find("$OZF_ASSERT") != std::string::npos;
}

bool canBeCarried(FilterParameters const& parameters)
{
  if (parameters.getJobInfo() == nullptr)
    return true;
  auto const& arguments = parameters.getJobInfo()->getArguments();
  return std::none_of(arguments.begin(), arguments.end(), namesVariable);
}

void checkWritten(FilterParameters const& parameters)
{
  std::string const described = describe(parameters);
  for (XmlStr::Encoding const encoding : ENCODINGS)
  {
    std::string const document = written(parameters, encoding);
    FilterParameters const again(document.c_str());
    require(again.lastError().empty(), "what was written can be read", document);
    if (!canBeCarried(parameters))
      continue;
    requireEqual(described, describe(again), "what was written reads as the same parameters");
    requireEqual(document, written(again, encoding), "writing is stable");
  }
}

// A query is handed over as it stands.
void checkQuery(FilterParameters const& parameters)
{
  AutoDereference<OzfQuery> const query(new OzfQuery);
  AutoDereference<OzfQuery> const same(new OzfQuery);
  require(parameters.setQuery(*query) == same->setQuery(parameters.getQueryString()),
          "the query is the one of the parameters");
  require(query->getQuery() == same->getQuery(), "the query is the one of the parameters");
}

void checkDocument(std::string const& text)
{
  FilterParameters const parameters(text.c_str());
  if (!parameters.lastError().empty())
    require(parameters.getQueryString().empty() && parameters.getJobInfo() == nullptr,
            "a document that cannot be read gives empty parameters");
  checkQuery(parameters);
  checkWritten(parameters);
}

void checkParts(std::string_view text)
{
  std::optional<std::string> query;
  std::vector<std::string> arguments;
  for (bool more = true; more;)
  {
    auto const end = text.find('\n');
    std::string part(text.substr(0, end));
    more = end != std::string_view::npos;
    text.remove_prefix(more ? end + 1 : text.size());
    if (!isXmlText(part))
      return;
    if (!query)
      query = std::move(part);
    else
      arguments.push_back(std::move(part));
  }
  AutoDereference<JobExecInfo> const job(arguments.empty() ? nullptr : new JobExecInfo(arguments));
  FilterParameters const parameters(job.get(), query->c_str());
  checkQuery(parameters);
  checkWritten(parameters);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string const text(textOf(data, size));
  if (text.starts_with('<'))
    checkDocument(text);
  else
    checkParts(text);
  return 0;
}
