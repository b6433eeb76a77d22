#include "ozf/xml/XmlDocumentInterface.h"

#include "ozf/xml/AsciiTranscoder.h"
#include "ozf/xml/HardenedParser.h"

#include <memory>
#include <new>
#include <utility>
#include <xercesc/sax/SAXException.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::string narrow(XMLCh const* text)
{
  return text == nullptr ? std::string() : OzfString(std::u16string_view(text)).str();
}

std::string describe(HardenedParser const& parser, xercesc::SAXParseException const& exception)
{
  return parser.describeAt(exception.getLineNumber(), exception.getColumnNumber(),
                           narrow(exception.getMessage()));
}

} // namespace

struct XmlDocumentInterface::Failure
{
  std::string text;
  bool tooLarge;
};

// One parse. It lives on the stack of parse() and installs itself, so that it
// is gone however the parse ends, and a handler may parse with the same object.
struct XmlDocumentInterface::Run
{
  Run(XmlDocumentInterface& owner, HardenedParser const& lent)
      : parser(lent), m_owner(owner), m_outer(std::exchange(owner.m_run, this))
  {
  }
  ~Run() { m_owner.m_run = m_outer; }
  Run(Run const&) = delete;
  Run& operator=(Run const&) = delete;

  // The first mistake is the one reported.
  void fail(std::string text, bool isTooLarge = false)
  {
    if (!error.empty())
      return;
    error = std::move(text);
    tooLarge = isTooLarge;
  }

  HardenedParser const& parser;
  std::unique_ptr<XmlObjParseContext> context;
  std::string error;
  bool tooLarge = false;
  int depth = 0;
  bool complete = false;

private:
  XmlDocumentInterface& m_owner;
  Run* m_outer;
};

XmlDocumentInterface::XmlDocumentInterface() = default;

XmlDocumentInterface::~XmlDocumentInterface() = default;

XmlObjParseContext* XmlDocumentInterface::getObjParseContext(XMLCh const* rootTag)
{
  return new XmlObjParseContext(rootTag, nullptr);
}

std::string const& XmlDocumentInterface::lastError() const noexcept
{
  static std::string const NONE;
  return m_failure != nullptr ? m_failure->text : NONE;
}

bool XmlDocumentInterface::wasTooLarge() const noexcept
{
  return m_failure != nullptr && m_failure->tooLarge;
}

DocumentLimits XmlDocumentInterface::limits() const { return {}; }

void XmlDocumentInterface::refuseTooLarge(std::string const& reason) const
{
  throw DocumentRefused(m_run->parser.describeHere(reason), true);
}

bool XmlDocumentInterface::parseBuffer(char const* text)
{
  return parseBuffer(text == nullptr ? std::string_view() : std::string_view(text));
}

bool XmlDocumentInterface::parseBuffer(std::string_view text)
{
  return run([&](HardenedParser& parser) { parser.parseText(text, *this, limits()); });
}

bool XmlDocumentInterface::parse(xercesc::InputSource const& source)
{
  return run([&](HardenedParser& parser) { parser.parseSource(source, *this, limits()); });
}

// The XML parser's way to say that memory ran out is no std::exception. It says
// nothing of the document, so it is no answer about it.
template <class Feed>
bool XmlDocumentInterface::run(Feed feed)
try
{
  ParserLease parser;
  Run run(*this, *parser);
  try
  {
    feed(*parser);
  }
  catch (DocumentRefused const& refusal)
  {
    run.fail(refusal.text(), refusal.isTooLarge());
  }
  catch (xercesc::SAXParseException const& exception)
  {
    run.fail(describe(*parser, exception));
  }
  catch (xercesc::SAXException const& exception)
  {
    run.fail(narrow(exception.getMessage()));
  }
  catch (xercesc::XMLException const& exception)
  {
    run.fail(narrow(exception.getMessage()));
  }
  if (!run.complete)
    run.fail("the text ends before the document does");
  m_failure =
      run.error.empty() ? nullptr : std::make_unique<Failure>(Failure{run.error, run.tooLarge});
  return m_failure == nullptr;
}
catch (xercesc::OutOfMemoryException const&)
{
  throw std::bad_alloc();
}

void XmlDocumentInterface::startElement(XMLCh const* name, AttributeList& attributes)
{
  Run& run = *m_run;
  if (run.depth == MAX_DEPTH)
    throw DocumentRefused(
        run.parser.describeHere("elements nest more than " + std::to_string(MAX_DEPTH) + " deep"));
  if (run.context == nullptr)
  {
    run.context.reset(getObjParseContext(name));
    if (run.context == nullptr)
      throw DocumentRefused(run.parser.describeHere("unexpected document element " + narrow(name)));
  }
  else
    run.context->enter();
  ++run.depth;
  xmlStartElement(run.context.get(), name, attributes);
}

void XmlDocumentInterface::endElement(XMLCh const* name)
{
  Run& run = *m_run;
  xmlEndElement(run.context.get(), name);
  if (--run.depth > 0)
    run.context->leave();
  else
    run.complete = true;
}

void XmlDocumentInterface::characters(XMLCh const* chars, XMLSize_t length)
{
  xmlCharacters(m_run->context.get(), chars, length);
}

void XmlDocumentInterface::ignorableWhitespace(XMLCh const* chars, XMLSize_t length)
{
  characters(chars, length);
}

void XmlDocumentInterface::fatalError(xercesc::SAXParseException const& exception)
{
  m_run->fail(describe(m_run->parser, exception));
}

void XmlDocumentInterface::error(xercesc::SAXParseException const& exception)
{
  m_run->fail(describe(m_run->parser, exception));
}

void XmlDocumentInterface::warning(xercesc::SAXParseException const&) {}

void initializeXml()
{
  static bool const ready = []
  {
    xercesc::XMLPlatformUtils::Initialize();
    AsciiTranscoder::install();
    return true;
  }();
  static_cast<void>(ready);
}

} // namespace Quillon::Tessarine::Ozf
