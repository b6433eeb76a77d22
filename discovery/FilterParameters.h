// What a request for a collection carries: a query and the job that asks.

#pragma once

#include "discovery/Export.h"
#include "ozf/sync/AutoDereference.h"
#include "ozf/xml/JobExecInfo.h"
#include "ozf/xml/OzfQuery.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <iosfwd>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Travels as a small document, which is the text given to CollectionData::open:
//
//   <?xml version="1.0" encoding="UTF-8"?><FilterParameters>
//   <QueryString>size &gt; 10G</QueryString>
//   <JobExecInfo>backup -policy nightly</JobExecInfo></FilterParameters>
//
// without the line breaks. Not locked.
class TQ_EXPORT FilterParameters : public XmlDocumentInterface
{
public:
  // Reads the document. One that cannot be read gives empty parameters;
  // lastError() says why.
  explicit FilterParameters(char const* xml);

  // Adds a reference to jobInfo. Both may be null.
  FilterParameters(JobExecInfo const* jobInfo, char const* queryString);

  ~FilterParameters() override;

  OzfString const& getQueryString() const noexcept { return m_queryString; }
  JobExecInfo const* getJobInfo() const noexcept { return m_jobInfo.get(); } // may be null

  // Hands the query string to query; returns what query.setQuery returns.
  int setQuery(OzfQuery& query) const;

  DocumentLimits limits() const override; // it comes with a request, and is small
  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  OzfString m_queryString;
  AutoDereference<JobExecInfo const> m_jobInfo;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
