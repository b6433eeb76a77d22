// One metadata document read into a record.

#include "bench/Bench.h"
#include "bench/Records.h"

#include "discovery/XMLHelper.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>

#include <algorithm>
#include <array>
#include <cstdio>

namespace tqbench
{

// Outside the unnamed namespace and not inlined, since callgrind is told to
// count inside this function only.
__attribute__((noinline)) void parseOneDocument(DBDiscovery& discovery, char const* text)
{
  require(discovery.load(text), "the document was refused");
}

namespace
{

constexpr int ROUNDS = 31;
constexpr int BLOCK = 2000;

template <class Parse>
Side side(char const* name, Parse parse)
{
  return {name, [parse]
          {
            return timed(
                       [&]
                       {
                         for (int i = 0; i < BLOCK; ++i)
                           parse();
                       }) /
                   BLOCK;
          }};
}

// Instructions of one parse as callgrind counts them; nothing without it. Only
// one of the processes that the program consists of parses.
std::optional<double> countInstructions(Settings const& settings)
{
  std::string const command =
      "valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no"
      " '--toggle-collect=tqbench::parseOneDocument*' '" +
      settings.program + "' --only parse --side counted 2>&1";
  std::FILE* const output = ::popen(command.c_str(), "r");
  require(output != nullptr, "no process for callgrind");
  std::optional<double> total;
  std::array<char, 512> line;
  while (std::fgets(line.data(), line.size(), output) != nullptr)
  {
    unsigned long long count = 0;
    char const* const text = std::char_traits<char>::find(line.data(), line.size(), 'C');
    if (text != nullptr && std::sscanf(text, "Collected : %llu", &count) == 1)
      total = std::max(total.value_or(0), static_cast<double>(count) / BLOCK);
  }
  ::pclose(output);
  return total;
}

} // namespace

std::vector<Row> benchParse(Settings const& settings)
{
  AutoDereference<DBDiscovery> discovery(
      new DBDiscovery(OzfPathname("."), nullptr, DQ_DISCOVERY_DATA));
  std::string text = document(7);
  auto const parse = [&] { parseOneDocument(*discovery, text.c_str()); };
  if (settings.side == "counted")
  {
    // The thread's parser is made outside of what is counted.
    require(discovery->load(text.c_str()), "the document was refused");
    side("counted", parse).round();
    return {};
  }

  initializeXml();
  xercesc::HandlerBase nothing;
  auto const bare = [&](xercesc::SAXParser& parser)
  {
    xercesc::MemBufInputSource const source(reinterpret_cast<XMLByte const*>(text.data()),
                                            text.size(), "text");
    parser.setDocumentHandler(&nothing);
    parser.setErrorHandler(&nothing);
    parser.parse(source);
  };
  xercesc::SAXParser reused;
  std::vector<double> const times =
      alternate(settings,
                {side("product", parse),
                 side("priority",
                      [&]
                      {
                        unsigned priority = 0;
                        require(XMLHelper::parse(text, priority) == 0, "no priority");
                      }),
                 side("reused", [&] { bare(reused); }),
                 side("fresh",
                      [&]
                      {
                        xercesc::SAXParser parser;
                        bare(parser);
                      })},
                ROUNDS);
  std::string const bytes = std::to_string(text.size()) + " bytes";
  std::vector<Row> rows{{"parse a metadata document, " + bytes,
                         "us",
                         times[0] * 1e6,
                         "bare SAX parser, reused",
                         times[2] * 1e6,
                         {}},
                        {"parse a metadata document, " + bytes,
                         "us",
                         times[0] * 1e6,
                         "bare SAX parser, new each",
                         times[3] * 1e6,
                         {}},
                        {"read the priority of a document",
                         "us",
                         times[1] * 1e6,
                         "bare SAX parser, reused",
                         times[2] * 1e6,
                         {}}};
  if (auto const instructions = countInstructions(settings); instructions && settings.side.empty())
    rows.push_back(
        {"parse a metadata document, " + bytes, "instructions", *instructions, "", {}, {}});
  else if (settings.side.empty())
    std::fputs("callgrind is not installed: instructions are not counted\n", stderr);
  return rows;
}

} // namespace tqbench
