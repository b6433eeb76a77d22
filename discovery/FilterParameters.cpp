#include "discovery/FilterParameters.h"

#include "discovery/DiscoveryLog.h"

#include <ace/ARGV.h>

#include <algorithm>
#include <ostream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "FilterParameters";

constexpr char DOCUMENT_TAG[] = "FilterParameters";
constexpr char QUERY_TAG[] = "QueryString";
constexpr char JOB_TAG[] = "JobExecInfo";

class FilterParametersContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  enum State
  {
    OUTSIDE = 0,
    DOCUMENT = 1,
    QUERY = 2,
    JOB = 3
  };

  int state = OUTSIDE;
  int unknown = 0; // elements open that the state does not tell of
};

FilterParametersContext& contextOf(XmlObjParseContext* context, char const* operation)
{
  auto* const own = dynamic_cast<FilterParametersContext*>(context);
  OZF_ASSERT(own != nullptr, "sContext", SOURCE, operation);
  return *own;
}

// ACE copies the name behind a '$' into a buffer of 4 KiB without looking at
// its length, and command lines come from other hosts. No variable is named at
// such length; a line with what could be one is taken as it stands. What ends a
// name here has to end it for ACE as well: vertical tabs and form feeds do not.
bool mayBeSubstituted(std::string const& commandLine)
{
  constexpr std::size_t LONGEST_NAME = 1024;
  for (auto dollar = commandLine.find('$'); dollar != std::string::npos;
       dollar = commandLine.find('$', dollar + 1))
  {
    auto const end = commandLine.find_first_of(" \t\n\r/", dollar);
    if (std::min(end, commandLine.size()) - dollar > LONGEST_NAME)
      return false;
  }
  return true;
}

AutoDereference<JobExecInfo const> jobOf(OzfString const& commandLine)
{
  AutoDereference<JobExecInfo> job(new JobExecInfo);
  // A quote that is never closed ends the arguments with the one before it.
  ACE_ARGV arguments(commandLine.c_str(), mayBeSubstituted(commandLine.str()));
  int count = arguments.argv() == nullptr ? 0 : arguments.argc();
  ACE_Arg_Shifter shifter(count, arguments.argv());
  job->setValue(shifter, false);
  return job;
}

} // namespace

FilterParameters::FilterParameters(char const* xml)
{
  if (!parseBuffer(xml))
  {
    m_jobInfo.reset();
    m_queryString = OzfString();
  }
}

FilterParameters::FilterParameters(JobExecInfo const* jobInfo, char const* queryString)
    : m_queryString(queryString), m_jobInfo(AutoDereference<JobExecInfo const>::retain(jobInfo))
{
}

FilterParameters::~FilterParameters() = default;

int FilterParameters::setQuery(OzfQuery& query) const { return query.setQuery(m_queryString); }

DocumentLimits FilterParameters::limits() const
{
  return {.elementNames = 1000, .attributes = 1000, .parserMemory = 32UL * 1024 * 1024};
}

XmlObjParseContext* FilterParameters::getObjParseContext(XMLCh const* rootTag)
{
  return new FilterParametersContext(rootTag, nullptr);
}

int FilterParameters::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                      AttributeList& attributes)
{
  using Context = FilterParametersContext;
  auto& own = contextOf(context, "FilterParameters::xmlStartElement");
  if (own.unknown == 0)
  {
    if (own.state == Context::OUTSIDE)
    {
      own.state = Context::DOCUMENT;
      return 1;
    }
    if (own.state == Context::DOCUMENT && XmlObjParseContext::cmptag(name, QUERY_TAG))
    {
      own.state = Context::QUERY;
      own.clearText();
      return 1;
    }
    if (own.state == Context::DOCUMENT && XmlObjParseContext::cmptag(name, JOB_TAG))
    {
      own.state = Context::JOB;
      own.clearText();
      return 1;
    }
  }
  ++own.unknown;
  return XmlDocumentInterface::xmlStartElement(context, name, attributes);
}

int FilterParameters::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  constexpr char const* OPERATION = "FilterParameters::xmlEndElement";
  using Context = FilterParametersContext;
  auto& own = contextOf(context, OPERATION);
  if (own.unknown > 0)
  {
    --own.unknown;
    return XmlDocumentInterface::xmlEndElement(context, name);
  }
  switch (own.state)
  {
  case Context::QUERY:
    m_queryString = own.text();
    own.state = Context::DOCUMENT;
    own.clearText();
    return 1;
  case Context::JOB:
    m_jobInfo = jobOf(own.text());
    own.state = Context::DOCUMENT;
    own.clearText();
    return 1;
  case Context::DOCUMENT:
    if (own.isEndTag(name))
    {
      own.state = Context::OUTSIDE;
      return 0;
    }
    break;
  default:
    break;
  }
  assertionFailed("SHOULD_NOT_GET_HERE", OPERATION, SOURCE, __LINE__);
}

std::ostream& FilterParameters::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  XmlStr::xmlProlog(os, encoding, XmlStr::DEFAULT_XML_VERSION);
  XmlStr::appendStart(os, DOCUMENT_TAG);
  XmlStr::appendStart(os, QUERY_TAG);
  os << XmlStr(m_queryString, encoding);
  XmlStr::appendEnd(os, QUERY_TAG);
  if (m_jobInfo)
  {
    XmlStr::appendStart(os, JOB_TAG);
    os << XmlStr(m_jobInfo->getCommandLine(), encoding);
    XmlStr::appendEnd(os, JOB_TAG);
  }
  return XmlStr::appendEnd(os, DOCUMENT_TAG);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
