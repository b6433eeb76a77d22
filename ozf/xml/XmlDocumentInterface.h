// Objects that are whole XML documents.
//
// Documents come from other hosts, other processes and plug-ins, so reading
// is hardened: a document type declaration is refused before anything in it
// is looked at, nothing is ever fetched, no entity is expanded but the five
// built-in ones, elements nest at most 256 deep, and a document takes a bounded
// amount of memory.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/xml/DocumentLimits.h"
#include "ozf/xml/XmlInterface.h"

#include <memory>
#include <string>
#include <string_view>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/sax/InputSource.hpp>

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT XmlDocumentInterface : public XmlInterface, public xercesc::HandlerBase
{
public:
  static constexpr int MAX_DEPTH = 256;

  // Makes the context of the document from the name of its root element, which
  // is then handed to xmlStartElement with that context. The document owns the
  // context and destroys it before the parse returns, however it ends. Null
  // refuses the document. Default: a plain context.
  virtual XmlObjParseContext* getObjParseContext(XMLCh const* rootTag);

  // How large the document may be; asked once a parse. The limit of what is made
  // of it is the tally's that its context was made with.
  virtual DocumentLimits limits() const;

  // Feeds the text, or the source, to this object. Each thread keeps a parser
  // of its own, made on first use; a parse inside a parse gets another. False
  // when the document is refused or not well-formed, with lastError() saying
  // what and where ("line 3, column 17: ..."); the object then holds what was
  // read so far. An AssertionFailure raised by a handler passes through, as
  // does any other exception that is not the XML parser's own. When memory runs
  // out they throw std::bad_alloc, whatever the document is; the next parse then
  // gets another parser. Null is an empty text, and an empty text is not
  // well-formed.
  bool parseBuffer(char const* text);
  bool parseBuffer(std::string_view text);
  bool parse(xercesc::InputSource const& source);

  std::string const& lastError() const noexcept;

  // Whether the last document went beyond a limit.
  bool wasTooLarge() const noexcept;

protected:
  XmlDocumentInterface();
  ~XmlDocumentInterface() override;

  // Ends the parse in progress, by this object, of a document that goes beyond a
  // limit: "more than 100 pages".
  [[noreturn]] void refuseTooLarge(std::string const& reason) const;

private:
  struct Run;
  struct Failure;

  template <class Feed>
  bool run(Feed feed);

  void startElement(XMLCh const* name, AttributeList& attributes) final;
  void endElement(XMLCh const* name) final;
  void characters(XMLCh const* chars, XMLSize_t length) final;
  void ignorableWhitespace(XMLCh const* chars, XMLSize_t length) final;
  void fatalError(xercesc::SAXParseException const& exception) final;
  void error(xercesc::SAXParseException const& exception) final;
  void warning(xercesc::SAXParseException const& exception) final;

  Run* m_run = nullptr; // the parse in progress, on its caller's stack
  // Null: none. Most documents are parts of others, of which there are many,
  // and never parse themselves.
  std::unique_ptr<Failure> m_failure;
};

// Makes the XML machinery ready; every parse does it by itself. It is never
// taken down: a thread that still parses at exit must not find it gone.
OZF_EXPORT void initializeXml();

} // namespace Quillon::Tessarine::Ozf
