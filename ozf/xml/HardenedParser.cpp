#include "ozf/xml/HardenedParser.h"

#include "ozf/xml/XmlDocumentInterface.h"

#include <cstdlib>
#include <malloc.h>
#include <new>
#include <utility>
#include <vector>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr XMLByte NO_TEXT[] = {0};
constexpr char16_t TEXT_NAME[] = u"text";

constexpr std::size_t MOST_KEPT = 1 << 20;

// The parsers of a thread that are not in use.
struct IdleParsers
{
  ~IdleParsers();

  std::vector<std::unique_ptr<HardenedParser>> parsers;
};

thread_local bool idleParsersGone = false;
thread_local IdleParsers idleParsers;

IdleParsers::~IdleParsers() { idleParsersGone = true; }

} // namespace

DocumentRefused::DocumentRefused(xercesc::Locator const* locator, std::string_view reason)
    : m_text(locator == nullptr
                 ? std::string(reason)
                 : describeAt(locator->getLineNumber(), locator->getColumnNumber(), reason))
{
}

std::string describeAt(XMLFileLoc line, XMLFileLoc column, std::string_view reason)
{
  std::string text = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
  return text.append(reason);
}

void* ParserMemory::allocate(XMLSize_t size)
{
  void* const block = std::malloc(size);
  if (block == nullptr && size != 0)
    throw xercesc::OutOfMemoryException();
  m_held += malloc_usable_size(block);
  return block;
}

void ParserMemory::deallocate(void* block)
{
  m_held -= malloc_usable_size(block);
  std::free(block);
}

// Exceptions outlive the parser that raised them.
xercesc::MemoryManager* ParserMemory::getExceptionMemoryManager()
{
  return xercesc::XMLPlatformUtils::fgMemoryManager;
}

HardenedParser::HardenedParser()
    : xercesc::SAXParser(nullptr, static_cast<ParserMemory*>(this)), m_text(NO_TEXT, 0, TEXT_NAME)
{
  m_text.setCopyBufToStream(false);
  // The scanner for documents without schemas is the fastest one that reports
  // document type declarations; the one that only checks the form skips them.
  useScanner(xercesc::XMLUni::fgDGXMLScanner);
  setValidationScheme(Val_Never);
  setDoNamespaces(false);
  setDoSchema(false);
  setLoadSchema(false);
  setLoadExternalDTD(false);
  setDisableDefaultEntityResolution(true);
  m_security.setEntityExpansionLimit(1);
  setSecurityManager(&m_security);
  setCalculateSrcOfs(false);
  // Without a handler for declarations doctypeDecl() would never be called.
  setDTDHandler(&m_dtdHandler);
}

bool HardenedParser::overgrown() const noexcept { return held() > MOST_KEPT; }

void HardenedParser::parseText(std::string_view text, xercesc::HandlerBase& handler)
{
  m_text.resetMemBufInputSource(reinterpret_cast<XMLByte const*>(text.data()), text.size());
  parseSource(m_text, handler);
}

void HardenedParser::parseSource(xercesc::InputSource const& source, xercesc::HandlerBase& handler)
{
  setDocumentHandler(&handler);
  setErrorHandler(&handler);
  parse(source);
}

void HardenedParser::doctypeDecl(xercesc::DTDElementDecl const&, XMLCh const*, XMLCh const*, bool,
                                 bool)
{
  throw DocumentRefused(getScanner().getLocator(), "document type declarations are refused");
}

void HardenedParser::endDocument()
{
  // The scanner takes a NUL character after the document element for the end
  // of the text and would let anything follow it. What still passes are the
  // few bytes of a character that the end of the text cuts off.
  if (!getScanner().getReaderMgr()->atEOF())
    throw DocumentRefused(getScanner().getLocator(), "text after the end of the document");
  SAXParser::endDocument();
}

ParserLease::ParserLease()
{
  initializeXml();
  if (idleParsersGone || idleParsers.parsers.empty())
  {
    m_parser = std::make_unique<HardenedParser>();
    return;
  }
  m_parser = std::move(idleParsers.parsers.back());
  idleParsers.parsers.pop_back();
}

ParserLease::~ParserLease()
{
  if (idleParsersGone || m_parser->overgrown())
    return;
  try
  {
    idleParsers.parsers.push_back(std::move(m_parser));
  }
  catch (std::bad_alloc const&)
  {
    // Then this parser goes and the next parse makes another.
  }
}

} // namespace Quillon::Tessarine::Ozf
