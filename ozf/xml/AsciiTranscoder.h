// A faster way from the UTF-8 of a document to the XML parser's characters.

#pragma once

#include <xercesc/util/XMLUTF8Transcoder.hpp>

namespace Quillon::Tessarine::Ozf
{

// UTF-8, by which plain ASCII passes many characters at a time; the parser's own
// transcoder takes them one by one, which is a tenth of the time of a large
// document. A piece with anything else in it goes to that transcoder as it is,
// so that what is refused, and where, stays its business.
class AsciiTranscoder : public xercesc::XMLUTF8Transcoder
{
public:
  using XMLUTF8Transcoder::XMLUTF8Transcoder;

  // The encoding that stands for this transcoder. No document can name it.
  static XMLCh const* name() noexcept { return u"UTF-8, ASCII FIRST"; }

  // Makes the name known to the XML machinery, which must be ready. Once, before
  // another thread parses.
  static void install();

  XMLSize_t transcodeFrom(XMLByte const* source, XMLSize_t sourceSize, XMLCh* target,
                          XMLSize_t targetSize, XMLSize_t& used, unsigned char* sizes) override;
};

} // namespace Quillon::Tessarine::Ozf
