// The parser behind every document, set up to refuse what an outsider could
// use against us.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/xml/DocumentLimits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/SecurityManager.hpp>

namespace Quillon::Tessarine::Ozf
{

// Ends a parse; it never leaves the parse operations of the documents.
class DocumentRefused
{
public:
  explicit DocumentRefused(std::string text, bool tooLarge = false)
      : m_text(std::move(text)), m_tooLarge(tooLarge)
  {
  }

  std::string const& text() const noexcept { return m_text; }

  // Whether it is well-formed as far as it was read, but beyond a limit.
  bool isTooLarge() const noexcept { return m_tooLarge; }

private:
  std::string m_text;
  bool m_tooLarge;
};

// The memory of one parser, which it gets from the XML machinery's own. What a
// document gives back is kept for the next one, which wants pieces of the same
// sizes: records are read by the hundred thousand. It knows how much it has got,
// for a parser keeps what its documents made it grow to: two megabytes of element
// names that are all different leave a hundred megabytes behind. All of it goes
// back at the end, also what the parser lost because memory ran out in it.
class OZF_EXPORT ParserMemory : public xercesc::MemoryManager
{
public:
  ParserMemory();
  ~ParserMemory() override;
  ParserMemory(ParserMemory const&) = delete;
  ParserMemory& operator=(ParserMemory const&) = delete;

  void* allocate(XMLSize_t size) override;
  void deallocate(void* block) override;
  xercesc::MemoryManager* getExceptionMemoryManager() override;

  // Bytes that have been got and not been given back to the process.
  std::size_t held() const noexcept { return m_held; }

private:
  struct Block; // stands before each piece
  static constexpr std::size_t GRAIN = 16;
  static constexpr std::size_t SMALL = 1024;

  Block*& spare(std::size_t size);
  Block* get(std::size_t size);
  void giveBack(Block* block);

  std::array<Block*, SMALL / GRAIN + 1> m_small = {}; // by size in grains
  Block* m_large = nullptr;                           // the last large one
  Block* m_newest = nullptr;                          // of all
  std::size_t m_held = 0;
};

// Usable again after every kind of end, exceptions of handlers included, but the
// end of memory: that leaves it in the middle of the document, which it refuses
// to leave from then on. It belongs to one parse at a time. The memory is a base
// since it must outlive the parser's own.
class HardenedParser : private ParserMemory, public xercesc::SAXParser
{
public:
  HardenedParser();

  // Whether a new one is to take its place: memory ran out in a parse, it has
  // grown too much, or it met a later version of XML, by which it would judge the
  // next document that names none.
  bool isSpent() const noexcept;

  // Feeds the text to handler, which is document and error handler in one, up to
  // the limits of the parser's own memory. Both throw what handler throws, the XML parser's own
  // exceptions, DocumentRefused, and xercesc::OutOfMemoryException or std::bad_alloc when memory
  // runs out.
  void parseText(std::string_view text, xercesc::HandlerBase& handler,
                 DocumentLimits const& limits);
  void parseSource(xercesc::InputSource const& source, xercesc::HandlerBase& handler,
                   DocumentLimits const& limits);

  // "line 3, column 17: reason", for a place as the parser reports it, and for
  // the place that the parse has come to.
  std::string describeAt(XMLFileLoc line, XMLFileLoc column, std::string_view reason) const;
  std::string describeHere(std::string_view reason) const;

  using ParserMemory::held;

private:
  class MeasuredSource;
  class MeasuredStream;

  template <class Parse>
  void watched(DocumentLimits const& limits, Parse parse);
  [[noreturn]] void refuseTooLarge(std::string_view what, std::size_t limit) const;
  void checkMemory() const;
  bool isNew(XMLSize_t name);
  void parseOwn(std::string_view text, xercesc::HandlerBase& handler);
  void feed(xercesc::InputSource const& source, xercesc::HandlerBase& handler);
  void doctypeDecl(xercesc::DTDElementDecl const& declaration, XMLCh const* publicId,
                   XMLCh const* systemId, bool hasInternalSubset, bool hasExternalSubset) override;
  void XMLDecl(XMLCh const* version, XMLCh const* encoding, XMLCh const* standalone,
               XMLCh const* actualEncoding) override;
  void startDocument() override;
  void endDocument() override;
  void startElement(xercesc::XMLElementDecl const& declaration, unsigned uri, XMLCh const* prefix,
                    xercesc::RefVectorOf<xercesc::XMLAttr> const& attributes, XMLSize_t count,
                    bool isEmpty, bool isRoot) override;

  xercesc::SecurityManager m_security;
  xercesc::HandlerBase m_deaf;
  xercesc::MemBufInputSource m_text;
  xercesc::MemBufInputSource m_ownText; // in m_wide
  std::u16string m_wide;
  DocumentLimits m_limits;            // of the document that is read
  std::uint64_t m_document = 0;       // its number
  std::size_t m_names = 0;            // of elements, met in it
  std::vector<std::uint64_t> m_metIn; // by name, the last document that has it
  bool m_newerXml = false;
  bool m_brokenOff = false;  // for want of memory
  std::size_t m_skipped = 0; // characters at the start that the parser did not get
};

// Lends the calling thread one of its parsers for a scope. A thread keeps at
// most as many as its parses were ever nested, and none that is spent. Throws
// xercesc::OutOfMemoryException or std::bad_alloc when there is no memory for a
// new one.
class ParserLease
{
public:
  ParserLease();
  ~ParserLease();
  ParserLease(ParserLease const&) = delete;
  ParserLease& operator=(ParserLease const&) = delete;

  HardenedParser& operator*() noexcept { return *m_parser; }

private:
  std::unique_ptr<HardenedParser> m_parser;
};

} // namespace Quillon::Tessarine::Ozf
