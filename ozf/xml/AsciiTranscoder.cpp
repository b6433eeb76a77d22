#include "ozf/xml/AsciiTranscoder.h"

#include <algorithm>
#include <xercesc/util/TransENameMap.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Without a way out in the middle, so that many characters go at a time.
bool isAscii(XMLByte const* bytes, XMLSize_t size)
{
  unsigned char bits = 0;
  for (XMLSize_t i = 0; i < size; ++i)
    bits |= bytes[i];
  return bits < 0x80;
}

} // namespace

void AsciiTranscoder::install()
{
  xercesc::XMLTransService::addEncoding(name(), new xercesc::ENameMapFor<AsciiTranscoder>(name()));
}

XMLSize_t AsciiTranscoder::transcodeFrom(XMLByte const* source, XMLSize_t sourceSize, XMLCh* target,
                                         XMLSize_t targetSize, XMLSize_t& used,
                                         unsigned char* sizes)
{
  XMLSize_t const size = std::min(sourceSize, targetSize);
  if (!isAscii(source, size))
    return XMLUTF8Transcoder::transcodeFrom(source, sourceSize, target, targetSize, used, sizes);
  std::copy(source, source + size, target);
  std::fill(sizes, sizes + size, static_cast<unsigned char>(1));
  used = size;
  return size;
}

} // namespace Quillon::Tessarine::Ozf
