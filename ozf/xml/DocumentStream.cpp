#include "ozf/xml/DocumentStream.h"

#include <algorithm>
#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>
#include <xercesc/util/XMLUni.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char16_t STREAM_NAME[] = u"documents";

// Longer than all that the parser compares the start of a document with: it
// would otherwise ask for the next document before it has begun.
constexpr std::string_view STREAM_START = "<documents>";

bool hasTag(std::string_view text, char mark)
{
  for (std::size_t at = text.find(mark, 1); at != text.npos; at = text.find(mark, at + 1))
    if (text[at - 1] == '<')
      return true;
  return false;
}

} // namespace

// What the parser reads from.
class DocumentStream::Bytes : public xercesc::BinInputStream
{
public:
  explicit Bytes(DocumentStream& stream) : m_stream(stream) {}

  XMLFilePos curPos() const override { return 0; }
  XMLCh const* getContentType() const override { return nullptr; }
  XMLSize_t readBytes(XMLByte* buffer, XMLSize_t size) override
  {
    return m_stream.nextBytes(buffer, size);
  }

private:
  DocumentStream& m_stream;
};

class DocumentStream::Source : public xercesc::InputSource
{
public:
  explicit Source(DocumentStream& stream)
      : xercesc::InputSource(STREAM_NAME, &stream.m_memory), m_stream(stream)
  {
    setEncoding(xercesc::XMLUni::fgXMLChEncodingString);
  }

  // The parser loses it when memory runs out at the start.
  xercesc::BinInputStream* makeStream() const override
  {
    return new (getMemoryManager()) Bytes(m_stream);
  }

private:
  DocumentStream& m_stream;
};

DocumentStream::DocumentStream(xercesc::SAXParser& parser, xercesc::ReaderMgr const& readers,
                               xercesc::MemoryManager& memory)
    : m_parser(parser), m_readers(readers), m_memory(memory)
{
}

// An end tag at the start would end the stream.
bool DocumentStream::takes(std::string_view text)
{
  return text.starts_with('<') && !text.starts_with("</") && text.ends_with('>') &&
         !hasTag(text, '!') && !hasTag(text, '?');
}

bool DocumentStream::parse(std::string_view text, xercesc::DocumentHandler& handler)
{
  struct Attempt
  {
    explicit Attempt(DocumentStream& owner) : stream(owner) {}
    ~Attempt()
    {
      if (!good)
        stream.close();
    }

    DocumentStream& stream;
    bool good = false;
  };

  Attempt attempt(*this);
  if (!m_open && !open())
    return false;
  m_handler = &handler;
  m_text = text;
  m_firstLine = m_readers.getCurrentReader()->getLineNumber();
  m_firstColumn = m_readers.getCurrentReader()->getColumnNumber();
  m_depth = 0;
  m_ended = false;
  m_mistaken = false;
  attempt.good = readDocument();
  return attempt.good;
}

bool DocumentStream::open()
{
  m_handler = nullptr;
  m_text = STREAM_START;
  m_parser.setDocumentHandler(this);
  m_parser.setErrorHandler(this);
  m_open = m_parser.parseFirst(Source(*this), m_token) && m_parser.parseNext(m_token);
  return m_open;
}

// What is left behind the document element belongs to no document.
bool DocumentStream::readDocument()
{
  while (!m_ended)
    if (!m_parser.parseNext(m_token))
      return false;
  return !m_mistaken && m_text.empty() && m_readers.getCurrentReader()->charsLeftInBuffer() == 0;
}

void DocumentStream::close() noexcept
{
  if (!m_open)
    return;
  m_open = false;
  try
  {
    m_parser.parseReset(m_token);
  }
  catch (...)
  {
    // As happens where memory has run out: there is none for the exception either.
    m_stuck = true;
  }
}

// A parser that wants more than the document has found the end of it; there is
// no going on after that.
XMLSize_t DocumentStream::nextBytes(XMLByte* buffer, XMLSize_t size)
{
  std::size_t const count = std::min<std::size_t>(m_text.size(), size / sizeof(XMLCh));
  if (count == 0)
    m_mistaken = true;
  std::copy_n(m_text.begin(), count, reinterpret_cast<XMLCh*>(buffer));
  m_text.remove_prefix(count);
  return count * sizeof(XMLCh);
}

XMLFileLoc DocumentStream::line() const
{
  return m_readers.getCurrentReader()->getLineNumber() - m_firstLine + 1;
}

XMLFileLoc DocumentStream::column() const
{
  XMLFileLoc const column = m_readers.getCurrentReader()->getColumnNumber();
  return line() == 1 ? column - m_firstColumn + 1 : column;
}

void DocumentStream::startElement(XMLCh const* name, xercesc::AttributeList& attributes)
{
  if (m_handler == nullptr)
    return;
  ++m_depth;
  m_handler->startElement(name, attributes);
}

void DocumentStream::endElement(XMLCh const* name)
{
  m_handler->endElement(name);
  m_ended = --m_depth == 0;
}

void DocumentStream::characters(XMLCh const* chars, XMLSize_t length)
{
  m_handler->characters(chars, length);
}

void DocumentStream::warning(xercesc::SAXParseException const&) { m_mistaken = true; }

void DocumentStream::error(xercesc::SAXParseException const&) { m_mistaken = true; }

void DocumentStream::fatalError(xercesc::SAXParseException const&) { m_mistaken = true; }

} // namespace Quillon::Tessarine::Ozf
