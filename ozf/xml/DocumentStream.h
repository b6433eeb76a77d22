// Short documents read one after the other, as the children of one document
// that never ends.
//
// A parser makes its scanner ready anew for each document, which costs a fifth
// of what a record needs in it. Within the one document it only goes on.

#pragma once

#include <cstddef>
#include <string_view>
#include <xercesc/framework/XMLPScanToken.hpp>
#include <xercesc/internal/ReaderMgr.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>

namespace Quillon::Tessarine::Ozf
{

// It uses the parser by turns with its owner: what is open has to be closed
// before the parser does anything else.
class DocumentStream : private xercesc::HandlerBase
{
public:
  // The readers and the memory are the parser's own.
  DocumentStream(xercesc::SAXParser& parser, xercesc::ReaderMgr const& readers,
                 xercesc::MemoryManager& memory);
  DocumentStream(DocumentStream const&) = delete;
  DocumentStream& operator=(DocumentStream const&) = delete;

  // Whether text, plain ASCII of at most 16 KiB, can be the next document: an
  // element and nothing else, without declarations, comments, instructions and
  // literal sections.
  static bool takes(std::string_view text);

  // Tells handler what is in text, which takes() has said yes to. False when it
  // is no document; handler then knows as much of it as any parse would have told
  // it, but not what is wrong. The stream is then closed, as it is when handler
  // throws.
  bool parse(std::string_view text, xercesc::DocumentHandler& handler);

  // The next parse() opens it again, unless the parser would not let go of it.
  void close() noexcept;
  bool isStuck() const noexcept { return m_stuck; }

  // Where the parse has come to in the document it is in. Only for handlers while
  // they are told something.
  bool isOpen() const noexcept { return m_open; }
  XMLFileLoc line() const;
  XMLFileLoc column() const;

private:
  class Source;
  class Bytes;

  bool open();
  bool readDocument();
  XMLSize_t nextBytes(XMLByte* buffer, XMLSize_t size);

  void startElement(XMLCh const* name, xercesc::AttributeList& attributes) override;
  void endElement(XMLCh const* name) override;
  void characters(XMLCh const* chars, XMLSize_t length) override;
  void warning(xercesc::SAXParseException const& exception) override;
  void error(xercesc::SAXParseException const& exception) override;
  void fatalError(xercesc::SAXParseException const& exception) override;
  void resetErrors() override {}

  xercesc::SAXParser& m_parser;
  xercesc::ReaderMgr const& m_readers;
  xercesc::MemoryManager& m_memory;
  xercesc::XMLPScanToken m_token;
  bool m_open = false;
  bool m_stuck = false;

  // Of the document that is read.
  xercesc::DocumentHandler* m_handler = nullptr; // null at the start of the stream
  std::string_view m_text;                       // what the parser has not got yet
  XMLFileLoc m_firstLine = 1;                    // where it begins
  XMLFileLoc m_firstColumn = 1;
  std::size_t m_depth = 0;
  bool m_ended = false;
  bool m_mistaken = false;
};

} // namespace Quillon::Tessarine::Ozf
