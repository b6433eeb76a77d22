// Prints what the explorers of the fleet found: every discovery whose subject
// and authority match two patterns, with the items in it.
//
//   read-discoveries [--where QUERY] [SUBJECT [AUTHORITY]]
//
// The program finds the master as every component does, through the product's
// configuration file. The library writes log lines to standard error, with the
// reason whenever something cannot be had.

#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/Uri.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/Configuration.h"

#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

enum ExitCode : int
{
  EXIT_DONE = 0,
  EXIT_FAILED = 1,  // the master could not be asked
  EXIT_USAGE = 2,   // wrong arguments
  EXIT_NOTHING = 3, // nothing matched
  EXIT_PARTLY = 4   // some discoveries could not be read, or not to their end
};

void complain(std::string const& text) { std::cerr << "read-discoveries: " << text << '\n'; }

// Names and values come from other hosts: control characters must not reach a
// terminal.
std::string printable(std::string const& text) { return Uri::percentEncode(text, URI_SHOWN); }

// ---- what is asked for ----

struct Request
{
  std::string subject = "*"; // patterns; '*' stands for any text
  std::string authority = "*";
  OzfQuery query;     // empty: every item
  std::string master; // for messages
};

// False after telling the user what is wrong.
bool parseArguments(std::vector<std::string> arguments, Request& request)
{
  if (!arguments.empty() && arguments[0] == "--where")
  {
    if (arguments.size() < 2)
    {
      complain("--where needs a query, for example 'Size > 10G and Type = ext4'");
      return false;
    }
    // The reader checks the query: explorers that get one they cannot
    // understand have no way to say so.
    if (request.query.setQuery(arguments[1]) != OzfQuery::QUERY_OK)
    {
      complain("the query cannot be understood: " + request.query.lastError());
      return false;
    }
    arguments.erase(arguments.begin(), arguments.begin() + 2);
  }
  if (arguments.size() > 2 || (!arguments.empty() && arguments[0].starts_with("-")))
  {
    std::cerr << "usage: read-discoveries [--where QUERY] [SUBJECT [AUTHORITY]]\n";
    return false;
  }
  if (!arguments.empty())
    request.subject = arguments[0];
  if (arguments.size() > 1)
    request.authority = arguments[1];
  return true;
}

// ---- one item ----

// The facts of an item: the elements that hold text, by name. An explorer
// without a parser of its own is read as XML text, so this reads that text; a
// component that knows its explorer would register a parser instead, and cast
// the explorer data to what that parser makes.
class Facts : public XmlDocumentInterface
{
public:
  bool read(ExplorerData const& data)
  {
    std::ostringstream text;
    text << "<facts>";
    data.writeXml(text, XmlStr::UTF_8);
    text << "</facts>"; // a document has one root
    return parseBuffer(text.str());
  }

  std::map<std::string, std::string> const& values() const { return m_values; }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    context->clearText();
    m_leaf = true;
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    if (m_leaf)
      m_values[OzfString(std::u16string_view(name)).str()] = context->text().str();
    m_leaf = false;
    return XmlDocumentInterface::xmlEndElement(context, name);
  }

private:
  std::map<std::string, std::string> m_values;
  bool m_leaf = false; // no element has ended since the last start tag
};

bool answers(OzfQuery const& query, Facts const& facts)
{
  return query.evaluate(
      [&facts](std::string_view name) -> std::optional<std::string>
      {
        auto const found = facts.values().find(std::string(name));
        return found == facts.values().end() ? std::nullopt : std::optional(found->second);
      });
}

void printFacts(DiscoveredItem const& item, Facts const& facts)
{
  std::cout << "  " << printable(item.getName()) << '\n';
  for (auto const& [name, value] : facts.values())
    std::cout << "    " << printable(name) << ": " << printable(value) << '\n';
  // An explorer that met a problem with this one thing says so here.
  if (StatusMsg const* const status = item.getStatusMsg())
    std::cout << "    status " << status->code() << ": " << printable(status->text().str()) << '\n';
}

// ---- one discovery ----

// Names come as they are shown, patterns as the user wrote them.
bool matches(std::string const& pattern, OzfString const& name)
{
  return wildcardcmp(printable(pattern), name.str()) == 0;
}

// An explorer that is asked on demand has no discovery time before it runs.
bool isOnDemand(CollectionItemIterator const& items)
{
  CollectionAttributes const* const attributes = items.getAttributes();
  return attributes == nullptr || attributes->getDiscoveryTime().isZero();
}

void printTitle(CollectionItemIterator const& items)
{
  std::cout << printable(items.getSubject().getName().str()) << ", "
            << printable(items.getAuthority().getName().str()) << ": ";
  std::string time;
  if (isOnDemand(items))
    std::cout << "found now\n";
  else if (MetadataConverter::convert(items.getAttributes()->getDiscoveryTime(), time, false))
    std::cout << "found " << time << '\n';
  else
    std::cout << "found at a time that cannot be written\n";
}

void printItems(CollectionItemIterator& items, OzfQuery const& query)
{
  // Explorers that are asked on demand have applied the query, to attributes
  // of which they may not write all. What is stored is stored whole.
  bool const filter = !isOnDemand(items);
  // One reference comes with each item; AutoDereference gives it back.
  while (AutoDereference<CollectionItem> const item{items.getNextCollectionItem()})
  {
    // A discovery holds either what was found or what can be asked for.
    if (auto const* const found = dynamic_cast<DiscoveredItem const*>(item.get()))
    {
      Facts facts;
      AutoDereference<ExplorerData> const data(found->getExplorerData());
      if (data && !facts.read(*data))
        complain("item \"" + printable(found->getName()) + "\": " + facts.lastError());
      if (!filter || answers(query, facts))
        printFacts(*found, facts);
    }
    else if (auto const* const askable = dynamic_cast<FilterItem const*>(item.get()))
    {
      for (auto const& attribute : askable->getQuery().attributes())
        std::cout << "  can be asked for: " << printable(attribute.name.str()) << '\n';
    }
  }
}

// ---- all of them ----

int readDiscoveries(Request const& request)
{
  // May call the master, and then takes as long as the request time-out, 30
  // seconds, at worst.
  AutoDereference<AuthSubIterator> const discoveries =
      getAuthSubIterator(DQ_DISCOVERY_DATA, request.subject, request.authority, AT_ANYANDALL);
  if (!discoveries)
  {
    complain("the master " + printable(request.master) +
             " could not be asked: is its service running, and does this host know its address?");
    return EXIT_FAILED;
  }

  FilterParameters const filter(nullptr, request.query.getQuery().c_str());
  bool const filtered = !request.query.getQuery().empty();
  std::size_t count = 0;
  bool complete = true;
  // Each step opens and reads one discovery: another call, to the host that
  // has it.
  while (AutoDereference<CollectionItemIterator> const items{
      discoveries->getNextCollectionItemIterator(filtered ? &filter : nullptr)})
  {
    // The service may answer with more than was asked for.
    if (!matches(request.subject, items->getSubject().getName()) ||
        !matches(request.authority, items->getAuthority().getName()))
      continue;
    // The service's own notes of which host answers for an explorer on demand.
    if (items->getAuthority().getType() == AT_REMOTEPULL)
      continue;

    ++count;
    printTitle(*items);
    printItems(*items, request.query);
    if (!items->isParsed())
    {
      complain("that discovery could not be read to its end; the log lines above say why");
      complete = false;
    }
  }
  if (count == 0)
  {
    complain("no discovery matches");
    return EXIT_NOTHING;
  }
  return complete ? EXIT_DONE : EXIT_PARTLY;
}

// The research API for as long as this lives. Everything that was read through
// it goes first.
class Research
{
public:
  Research() { initDiscoveryResearch(); }
  ~Research() { deinitDiscoveryResearch(); }
  Research(Research const&) = delete;
  Research& operator=(Research const&) = delete;
};

} // namespace

int main(int argc, char** argv)
try
{
  Request request;
  if (!parseArguments({argv + 1, argv + argc}, request))
    return EXIT_USAGE;

  auto const configuration = getConfiguration();
  std::string const* const master = configuration->find("SERVER");
  if (master == nullptr || master->empty())
  {
    complain("no master is known: there is no SERVER in " + configuration->path());
    return EXIT_FAILED;
  }
  request.master = *master;
  // Payloads and lists come in pages, and those that a service sends unasked are small.
  if (configuration->find("COLLECTION_PAGE_SIZE") == nullptr)
    overrideConfiguration("COLLECTION_PAGE_SIZE", "65536");
  if (configuration->find("DISCOVERY_PAGE_SIZE") == nullptr)
    overrideConfiguration("DISCOVERY_PAGE_SIZE", "500");

  Research const research;
  return readDiscoveries(request);
}
catch (std::exception const& exception)
{
  complain(exception.what());
  return EXIT_FAILED;
}
