#include "ozf/xml/HardenedParser.h"

#include "ozf/base/AsciiRun.h"
#include "ozf/base/FreeMemory.h"
#include "ozf/xml/AsciiTranscoder.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>
#include <xercesc/framework/XMLElementDecl.hpp>
#include <xercesc/internal/XMLReader.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/util/BinInputStream.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr XMLByte NO_TEXT[] = {0};
constexpr char16_t TEXT_NAME[] = u"text";

constexpr std::size_t MOST_KEPT = 1 << 20;

// No document that an explorer writes makes a parser grow so much.
constexpr std::size_t LARGE_PARSER = 4 << 20;

// How the product's own documents begin. It says what holds without it.
constexpr std::string_view OWN_PROLOG = R"(<?xml version="1.0" encoding="UTF-8"?>)";
constexpr auto WIDE_OWN_PROLOG = []
{
  std::array<char16_t, OWN_PROLOG.size() + 1> wide = {};
  std::copy(OWN_PROLOG.begin(), OWN_PROLOG.end(), wide.begin());
  return wide;
}();
constexpr std::size_t LARGEST_OWN = 16 * 1024;

// Whether text is what the product writes for records: its own prolog, then an
// element, in plain ASCII. The second prolog of a text that has two would be
// taken for its first.
bool isOwn(std::string_view text)
{
  if (text.size() > LARGEST_OWN || !text.starts_with(OWN_PROLOG))
    return false;
  text.remove_prefix(OWN_PROLOG.size());
  return text.starts_with('<') && !text.starts_with("<?") && isAscii(text);
}

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

// Memory that was got, in use or spare.
struct alignas(std::max_align_t) ParserMemory::Block
{
  std::size_t size; // with this
  Block* nextSpare;
  Block* older;
  Block* newer;
};

ParserMemory::ParserMemory() { initializeXml(); }

ParserMemory::~ParserMemory()
{
  while (m_newest != nullptr)
    giveBack(m_newest);
}

// Where spare blocks of the size are kept. Of the large ones it is one, which
// is what a parse takes and gives back each time.
ParserMemory::Block*& ParserMemory::spare(std::size_t size)
{
  return size <= SMALL ? m_small[size / GRAIN] : m_large;
}

void* ParserMemory::allocate(XMLSize_t wanted)
{
  static_assert(sizeof(Block) % GRAIN == 0);
  std::size_t const size = (wanted + sizeof(Block) + GRAIN - 1) / GRAIN * GRAIN;
  if (size < wanted)
    throw xercesc::OutOfMemoryException();
  Block*& kept = spare(size);
  if (kept != nullptr && kept->size == size)
    return std::exchange(kept, kept->nextSpare) + 1;
  return get(size) + 1;
}

void ParserMemory::deallocate(void* piece)
{
  if (piece == nullptr)
    return;
  Block* const block = static_cast<Block*>(piece) - 1;
  Block*& kept = spare(block->size);
  if (block->size <= SMALL)
    block->nextSpare = kept;
  else if (kept != nullptr)
    giveBack(kept);
  kept = block;
}

ParserMemory::Block* ParserMemory::get(std::size_t size)
{
  void* const memory = getExceptionMemoryManager()->allocate(size);
  m_newest = new (memory) Block{size, nullptr, m_newest, nullptr};
  if (m_newest->older != nullptr)
    m_newest->older->newer = m_newest;
  m_held += size;
  return m_newest;
}

void ParserMemory::giveBack(Block* block)
{
  (block->newer != nullptr ? block->newer->older : m_newest) = block->older;
  if (block->older != nullptr)
    block->older->newer = block->newer;
  m_held -= block->size;
  getExceptionMemoryManager()->deallocate(block);
}

// Exceptions outlive the parser that raised them, so they have the memory that
// this one has its own from.
xercesc::MemoryManager* ParserMemory::getExceptionMemoryManager()
{
  return xercesc::XMLPlatformUtils::fgMemoryManager;
}

// Looks at the parser's memory each time the parser asks for more to read: one
// request is some 48 KiB, which cannot make it grow by more than a few megabytes.
class HardenedParser::MeasuredStream : public xercesc::BinInputStream
{
public:
  MeasuredStream(HardenedParser const& parser, xercesc::BinInputStream& stream)
      : m_parser(parser), m_stream(stream)
  {
  }

  XMLFilePos curPos() const override { return m_stream.curPos(); }
  XMLCh const* getContentType() const override { return m_stream.getContentType(); }
  XMLCh const* getEncoding() const override { return m_stream.getEncoding(); }

  // A parser that is still being set up, as it is at the first read, loses what it
  // has when this raises, for as long as it lives.
  XMLSize_t readBytes(XMLByte* buffer, XMLSize_t size) override
  {
    if (std::exchange(m_begun, true))
      m_parser.checkMemory();
    return m_stream.readBytes(buffer, size);
  }

private:
  HardenedParser const& m_parser;
  xercesc::BinInputStream& m_stream;
  bool m_begun = false;
};

// Another source, read through the above. The parser loses a stream when memory
// runs out at the start: so it owns nothing and is in the parser's memory.
class HardenedParser::MeasuredSource : public xercesc::InputSource
{
public:
  MeasuredSource(HardenedParser& parser, xercesc::InputSource const& source)
      : xercesc::InputSource(source.getSystemId(), source.getPublicId(),
                             static_cast<ParserMemory*>(&parser)),
        m_parser(parser),
        m_source(source)
  {
  }

  xercesc::BinInputStream* makeStream() const override
  {
    m_stream.reset(m_source.makeStream());
    return m_stream == nullptr ? nullptr
                               : new (getMemoryManager()) MeasuredStream(m_parser, *m_stream);
  }
  XMLCh const* getEncoding() const override { return m_source.getEncoding(); }
  bool getIssueFatalErrorIfNotFound() const override
  {
    return m_source.getIssueFatalErrorIfNotFound();
  }

private:
  HardenedParser const& m_parser;
  xercesc::InputSource const& m_source;
  mutable std::unique_ptr<xercesc::BinInputStream> m_stream; // of m_source
};

HardenedParser::HardenedParser()
    : xercesc::SAXParser(nullptr, static_cast<ParserMemory*>(this)),
      m_text(NO_TEXT, 0, TEXT_NAME),
      m_ownText(NO_TEXT, 0, TEXT_NAME)
{
  m_text.setCopyBufToStream(false);
  m_ownText.setCopyBufToStream(false);
  m_ownText.setEncoding(xercesc::XMLUni::fgXMLChEncodingString);
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
  setDTDHandler(&m_deaf);
}

bool HardenedParser::isSpent() const noexcept
{
  return m_newerXml || m_brokenOff || held() > MOST_KEPT;
}

// The parser does not set itself right when memory runs out.
template <class Parse>
void HardenedParser::watched(DocumentLimits const& limits, Parse parse)
{
  m_limits = limits;
  ++m_document;
  m_names = 0;
  try
  {
    parse();
  }
  catch (xercesc::OutOfMemoryException const&)
  {
    m_brokenOff = true;
    throw;
  }
  catch (std::bad_alloc const&)
  {
    m_brokenOff = true;
    throw;
  }
}

void HardenedParser::parseText(std::string_view text, xercesc::HandlerBase& handler,
                               DocumentLimits const& limits)
{
  watched(limits,
          [&]
          {
            if (isOwn(text))
            {
              parseOwn(text, handler);
              return;
            }
            m_skipped = 0;
            m_text.resetMemBufInputSource(reinterpret_cast<XMLByte const*>(text.data()),
                                          text.size());
            feed(m_text, handler);
          });
}

// The parser spends a tenth of a record each on the prolog and on taking UTF-8
// apart. It gets the characters in its own form, from behind the prolog on.
void HardenedParser::parseOwn(std::string_view text, xercesc::HandlerBase& handler)
{
  m_skipped = OWN_PROLOG.size();
  text.remove_prefix(m_skipped);
  m_wide.resize(text.size());
  std::copy(text.begin(), text.end(), m_wide.begin());
  m_ownText.resetMemBufInputSource(reinterpret_cast<XMLByte const*>(m_wide.data()),
                                   m_wide.size() * sizeof(XMLCh));
  feed(m_ownText, handler);
}

void HardenedParser::parseSource(xercesc::InputSource const& source, xercesc::HandlerBase& handler,
                                 DocumentLimits const& limits)
{
  m_skipped = 0;
  watched(limits, [&] { feed(source, handler); });
}

void HardenedParser::feed(xercesc::InputSource const& source, xercesc::HandlerBase& handler)
{
  setDocumentHandler(&handler);
  setErrorHandler(&handler);
  parse(MeasuredSource(*this, source));
}

void HardenedParser::refuseTooLarge(std::string_view what, std::size_t limit) const
{
  throw DocumentRefused(
      describeHere("more than " + std::to_string(limit) + ' ' + std::string(what)), true);
}

// Whether the name of that number has not been met in this document.
bool HardenedParser::isNew(XMLSize_t name)
{
  if (name >= m_metIn.size())
    m_metIn.resize(2 * name + 1);
  return std::exchange(m_metIn[name], m_document) != m_document;
}

void HardenedParser::checkMemory() const
{
  if (held() > m_limits.parserMemory)
    refuseTooLarge("bytes for names, attributes and comments", m_limits.parserMemory);
}

// The parser numbers the names of elements as it meets them, from 1, and keeps
// them for the next document.
void HardenedParser::startElement(xercesc::XMLElementDecl const& declaration, unsigned uri,
                                  XMLCh const* prefix,
                                  xercesc::RefVectorOf<xercesc::XMLAttr> const& attributes,
                                  XMLSize_t count, bool isEmpty, bool isRoot)
{
  if (count > m_limits.attributes)
    refuseTooLarge("attributes of one element", m_limits.attributes);
  if (isNew(declaration.getId()) && ++m_names > m_limits.elementNames)
    refuseTooLarge("different names of elements", m_limits.elementNames);
  SAXParser::startElement(declaration, uri, prefix, attributes, count, isEmpty, isRoot);
}

std::string HardenedParser::describeAt(XMLFileLoc line, XMLFileLoc column,
                                       std::string_view reason) const
{
  if (line == 1)
    column += m_skipped;
  std::string text = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
  return text.append(reason);
}

std::string HardenedParser::describeHere(std::string_view reason) const
{
  xercesc::Locator const& place = *getScanner().getLocator();
  return describeAt(place.getLineNumber(), place.getColumnNumber(), reason);
}

void HardenedParser::doctypeDecl(xercesc::DTDElementDecl const&, XMLCh const*, XMLCh const*, bool,
                                 bool)
{
  throw DocumentRefused(describeHere("document type declarations are refused"));
}

// The prolog is decoded by now, in the encoding that the first bytes tell, and
// nothing behind it. A transcoder that is there stays when the prolog confirms
// UTF-8; it would be lost, with its memory, if the prolog named another encoding.
void HardenedParser::startDocument()
{
  // Only the constant scanner is handed out, although it is ours.
  auto* const reader =
      const_cast<xercesc::XMLReader*>(getScanner().getReaderMgr()->getCurrentReader());
  if (reader != nullptr && reader->charsLeftInBuffer() >= OWN_PROLOG.size() &&
      reader->peekString(WIDE_OWN_PROLOG.data()) &&
      xercesc::XMLString::equals(reader->getEncodingStr(), xercesc::XMLUni::fgUTF8EncodingString))
    reader->setEncoding(AsciiTranscoder::name());
  SAXParser::startDocument();
}

// XML 1.1 has control characters, which nothing that reads a document expects
// in it, and ends lines at more of them.
void HardenedParser::XMLDecl(XMLCh const* version, XMLCh const*, XMLCh const*, XMLCh const*)
{
  if (version == nullptr || xercesc::XMLString::equals(version, xercesc::XMLUni::fgVersion1_0))
    return;
  m_newerXml = true;
  throw DocumentRefused(describeHere("only XML 1.0 is read"));
}

void HardenedParser::endDocument()
{
  // The scanner takes a NUL character after the document element for the end
  // of the text and would let anything follow it. What still passes are the
  // few bytes of a character that the end of the text cuts off.
  if (!getScanner().getReaderMgr()->atEOF())
    throw DocumentRefused(describeHere("text after the end of the document"));
  SAXParser::endDocument();
}

ParserLease::ParserLease()
{
  initializeXml(); // the parser object itself has the machinery's memory
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
  if (idleParsersGone || m_parser->isSpent())
  {
    bool const large = m_parser->held() > LARGE_PARSER;
    m_parser.reset();
    if (large)
      returnFreeMemory();
    return;
  }
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
