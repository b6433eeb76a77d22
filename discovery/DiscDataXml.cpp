// The metadata document: how records write themselves as XML and are read
// back. docs/metadata.md has the grammar.

#include "discovery/DiscDataXml.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/XMLHelper.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/Trim.h"
#include "ozf/xml/ExactContext.h"

#include <memory>
#include <ostream>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscData";

constexpr char DOCUMENT_TAG[] = "DiscoveryData";
constexpr char AUTHORITY_TAG[] = "DiscoveryAuthority";
constexpr char SUBJECT_TAG[] = "DiscoverySubject";
constexpr char ATTRIBUTES_TAG[] = "DiscoveryAttributes";
constexpr char PRIORITY_TAG[] = "Priority";
constexpr char DISCOVERY_TIME_TAG[] = "DiscoveryTime";
constexpr char EXPIRES_TIME_TAG[] = "ExpiresTime";
constexpr char SIGNATURE_TAG[] = "Signature";

// How deep the elements nest that make up a record.
constexpr std::size_t DEPTH_OF_RECORDS = 3;

bool collectsText(MetadataNode node)
{
  return node == MetadataNode::PRIORITY || node == MetadataNode::DISCOVERY_TIME ||
         node == MetadataNode::EXPIRES_TIME || node == MetadataNode::SIGNATURE;
}

// The value of an enumeration attribute. Documents come from other hosts and
// other releases, and a value outside the enumeration could not be sent on, so
// such a value reads as the first of the enumeration.
template <class Enum>
Enum enumAttribute(AttributeList const& attributes, char const* name, Enum last, char const* what,
                   bool& mistaken)
{
  OzfString const text = XmlInterface::attribute(attributes, name).value_or(OzfString());
  unsigned value = 0;
  if (MetadataConverter::convert(text.str(), value) && value <= static_cast<unsigned>(last))
    return static_cast<Enum>(value);
  OZF_LOG(getOzfLogger(), 1, SOURCE, "Discovery::xmlStartElement",
          "Unable to convert " << what << " " << text);
  mistaken = true;
  return static_cast<Enum>(0);
}

// Discovery times are kept to the second, expiry times to the microsecond.
void writeTime(std::ostream& os, char const* tag, OzfObjTime const& time, bool fraction)
{
  if (time.isZero())
    return;
  std::string text;
  if (!MetadataConverter::convert(time, text, fraction))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "CollectionAttributes::writeXml",
            "Unable to write " << tag << " " << time.seconds());
    return;
  }
  XmlStr::appendStart(os, tag);
  os << text;
  XmlStr::appendEnd(os, tag);
}

} // namespace

std::ostream& Description::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  return m_status ? m_status->writeXml(os, encoding) : os;
}

std::ostream& Subject::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  os << '<' << SUBJECT_TAG << " Name=\"" << XmlStr(m_subject, encoding) << "\">";
  Description::writeXml(os, encoding);
  return XmlStr::appendEnd(os, SUBJECT_TAG);
}

std::ostream& Authority::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  os << '<' << AUTHORITY_TAG << " Name=\"" << XmlStr(m_name, encoding) << "\" Type=\""
     << std::to_string(static_cast<int>(m_type)) << "\">";
  Description::writeXml(os, encoding);
  return XmlStr::appendEnd(os, AUTHORITY_TAG);
}

std::ostream& CollectionAttributes::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  // Numbers pass through to_string: a stream may carry a locale that groups
  // their digits.
  os << '<' << ATTRIBUTES_TAG << " Type=\"" << std::to_string(static_cast<int>(m_type))
     << "\" Storage=\"" << std::to_string(static_cast<int>(m_storage)) << "\">";
  XmlStr::appendStart(os, PRIORITY_TAG);
  os << std::to_string(m_priority);
  XmlStr::appendEnd(os, PRIORITY_TAG);
  writeTime(os, DISCOVERY_TIME_TAG, m_discoveryTime, false);
  writeTime(os, EXPIRES_TIME_TAG, m_expiresTime, true);
  if (!m_signature.empty())
  {
    XmlStr::appendStart(os, SIGNATURE_TAG);
    os << XmlStr(m_signature, encoding);
    XmlStr::appendEnd(os, SIGNATURE_TAG);
  }
  return XmlStr::appendEnd(os, ATTRIBUTES_TAG);
}

std::ostream& Discovery::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  XmlStr::xmlProlog(os, encoding, XmlStr::DEFAULT_XML_VERSION);
  XmlStr::appendStart(os, DOCUMENT_TAG);
  if (m_authority != nullptr)
    m_authority->writeXml(os, encoding);
  if (m_subject != nullptr)
    m_subject->writeXml(os, encoding);
  if (m_attributes != nullptr)
    m_attributes->writeXml(os, encoding);
  return XmlStr::appendEnd(os, DOCUMENT_TAG);
}

int Description::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                 AttributeList& attributes)
{
  auto& ctxt = exactContext<DescriptionContext>(context, SOURCE, "Description::xmlStartElement");
  if (ctxt.m_subContext)
    return ctxt.m_status->xmlStartElement(ctxt.m_subContext.get(), name, attributes);
  if (ctxt.m_ignored == 0 && XmlObjParseContext::cmptag(name, StatusMsg::TAG))
  {
    StatusMsg* status = nullptr;
    ctxt.m_subContext.reset(xmlCreateObject(name, attributes, &ctxt, status));
    ctxt.m_status.reset(status);
    return 1;
  }
  ++ctxt.m_ignored;
  return XmlInterface::xmlStartElement(context, name, attributes);
}

int Description::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars,
                               unsigned long length)
{
  auto& ctxt = exactContext<DescriptionContext>(context, SOURCE, "Description::xmlCharacters");
  if (ctxt.m_subContext)
    return ctxt.m_status->xmlCharacters(ctxt.m_subContext.get(), chars, length);
  return 1; // a description has no text of its own
}

int Description::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  auto& ctxt = exactContext<DescriptionContext>(context, SOURCE, "Description::xmlEndElement");
  if (ctxt.m_subContext)
  {
    if (ctxt.m_status->xmlEndElement(ctxt.m_subContext.get(), name) == 0)
    {
      ctxt.m_subContext.reset();
      m_status = ctxt.m_status;
      ctxt.m_status.reset();
    }
    return 1;
  }
  if (ctxt.m_ignored > 0)
  {
    --ctxt.m_ignored;
    return 1;
  }
  return XmlInterface::xmlEndElement(context, name);
}

XmlObjParseContext* Discovery::getObjParseContext(XMLCh const* rootTag)
{
  m_readsAlike = false;
  auto context = std::make_unique<DiscoveryDocContext>(rootTag, nullptr);
  context->m_nodes.reserve(DEPTH_OF_RECORDS);
  return context.release();
}

int Discovery::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                               AttributeList& attributes)
{
  constexpr char OPERATION[] = "Discovery::xmlStartElement";
  auto& ctxt = exactContext<DiscoveryDocContext>(context, SOURCE, OPERATION);
  if (ctxt.m_subContext)
  {
    OZF_ASSERT(ctxt.m_subInterface != nullptr, "ctxt->m_subInterface", SOURCE, OPERATION);
    return ctxt.m_subInterface->xmlStartElement(&*ctxt.m_subContext, name, attributes);
  }

  auto const is = [name](char const* tag) { return XmlObjParseContext::cmptag(name, tag); };
  auto const openDescription = [&](MetadataNode node, Description* description)
  {
    OZF_ASSERT(!ctxt.m_subContext, "!ctxt->m_subContext", SOURCE, OPERATION);
    ctxt.m_nodes.push_back(node);
    ctxt.m_subContext.emplace(name, &ctxt);
    ctxt.m_subInterface = description;
    return 1;
  };
  auto const openText = [&](MetadataNode node)
  {
    ctxt.m_nodes.push_back(node);
    ctxt.clearText();
    return 1;
  };

  if (ctxt.m_nodes.empty())
  {
    if (is(DOCUMENT_TAG))
    {
      ctxt.m_nodes.push_back(MetadataNode::DOCUMENT);
      return 1;
    }
  }
  else if (ctxt.m_nodes.back() == MetadataNode::DOCUMENT)
  {
    if (is(AUTHORITY_TAG))
    {
      // A name that comes out empty must not reach the constructor's
      // assertion: it is the document's mistake.
      UriAuthority authority;
      if (authority.setAuthority(attribute(attributes, "Name").value_or(OzfString()).str()))
      {
        auto const type =
            enumAttribute(attributes, "Type", AT_REMOTEPULL, "authority type", ctxt.m_mistaken);
        setAuthority(new Authority(authority, type));
        return openDescription(MetadataNode::AUTHORITY, m_authority);
      }
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Authority name not specified");
      ctxt.m_mistaken = true;
      ctxt.m_nodes.push_back(MetadataNode::IGNORED);
      return 1;
    }
    if (is(SUBJECT_TAG))
    {
      auto const subject = attribute(attributes, "Name");
      if (subject && !subject->empty())
      {
        setSubject(new Subject(subject->str()));
        return openDescription(MetadataNode::SUBJECT, m_subject);
      }
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Subject name not specified");
      ctxt.m_mistaken = true;
      ctxt.m_nodes.push_back(MetadataNode::IGNORED);
      return 1;
    }
    if (is(ATTRIBUTES_TAG))
    {
      auto const type =
          enumAttribute(attributes, "Type", CT_POINT_IN_TIME, "collection type", ctxt.m_mistaken);
      auto const storage = enumAttribute(attributes, "Storage", CS_CENTRALREPOSITORY,
                                         "collection storage", ctxt.m_mistaken);
      setAttributes(new CollectionAttributes(type, storage, OzfObjTime(), OzfObjTime(), 0));
      ctxt.m_expiryMissing = true; // it is this moment
      ctxt.m_nodes.push_back(MetadataNode::ATTRIBUTES);
      return 1;
    }
  }
  else if (ctxt.m_nodes.back() == MetadataNode::ATTRIBUTES)
  {
    if (is(DISCOVERY_TIME_TAG))
      return openText(MetadataNode::DISCOVERY_TIME);
    if (is(EXPIRES_TIME_TAG))
      return openText(MetadataNode::EXPIRES_TIME);
    if (is(SIGNATURE_TAG))
      return openText(MetadataNode::SIGNATURE);
    if (is(PRIORITY_TAG))
      return openText(MetadataNode::PRIORITY);
  }
  ctxt.m_nodes.push_back(MetadataNode::IGNORED);
  return XmlDocumentInterface::xmlStartElement(context, name, attributes);
}

int Discovery::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length)
{
  constexpr char OPERATION[] = "Discovery::xmlCharacters";
  auto& ctxt = exactContext<DiscoveryDocContext>(context, SOURCE, OPERATION);
  if (ctxt.m_subContext)
  {
    OZF_ASSERT(ctxt.m_subInterface != nullptr, "ctxt->m_subInterface", SOURCE, OPERATION);
    return ctxt.m_subInterface->xmlCharacters(&*ctxt.m_subContext, chars, length);
  }
  if (!ctxt.m_nodes.empty() && collectsText(ctxt.m_nodes.back()))
    ctxt.appendText(chars, length);
  return 1;
}

int Discovery::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  constexpr char OPERATION[] = "Discovery::xmlEndElement";
  auto& ctxt = exactContext<DiscoveryDocContext>(context, SOURCE, OPERATION);
  OZF_ASSERT(!ctxt.m_nodes.empty(), "SHOULD_NOT_GET_HERE", SOURCE, OPERATION);

  MetadataNode const node = ctxt.m_nodes.back();
  if (node == MetadataNode::AUTHORITY || node == MetadataNode::SUBJECT)
  {
    OZF_ASSERT(ctxt.m_subContext, "ctxt->m_subContext", SOURCE, OPERATION);
    OZF_ASSERT(ctxt.m_subInterface != nullptr, "ctxt->m_subInterface", SOURCE, OPERATION);
    if (ctxt.m_subInterface->xmlEndElement(&*ctxt.m_subContext, name) != 0)
      return 1;
    ctxt.m_subContext.reset();
    ctxt.m_subInterface = nullptr;
  }
  else if (collectsText(node))
  {
    OzfString const collected = ctxt.text();
    std::string const& text = collected.str();
    ctxt.clearText();
    OzfObjTime time;
    unsigned priority = 0;
    bool converted = true;
    switch (node)
    {
    case MetadataNode::DISCOVERY_TIME:
      converted = MetadataConverter::convert(text, time, true);
      if (converted)
        m_attributes->setDiscoveryTime(time);
      else
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to convert discovery time " << text);
      break;
    case MetadataNode::EXPIRES_TIME:
      converted = MetadataConverter::convert(text, time, true);
      if (converted)
      {
        m_attributes->setExpiresTime(time);
        ctxt.m_expiryMissing = false;
      }
      else
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to convert expires time " << text);
      break;
    case MetadataNode::SIGNATURE:
      m_attributes->setSignature(collected);
      break;
    default:
      // The number in the document weighs only against a replacement, which
      // reads it for itself. A record that was read back claims nothing.
      converted = MetadataConverter::convert(std::string(trimmed(text)), priority);
      if (converted)
        m_attributes->setPriority(0);
      else
        OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Unable to convert priority " << text);
      break;
    }
    if (!converted)
      ctxt.m_mistaken = true;
  }
  ctxt.m_nodes.pop_back();
  if (!ctxt.m_nodes.empty())
    return 1;
  m_readsAlike = !ctxt.m_mistaken && !ctxt.m_expiryMissing;
  return 0;
}

std::optional<unsigned> storedPriority(std::string& document)
{
  unsigned priority = 0;
  if (XMLHelper::parse(document, priority) != 0)
    return std::nullopt;
  return priority;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
