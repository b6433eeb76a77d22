#include "ozf/xml/AsciiTranscoder.h"

#include "ozf/base/AsciiRun.h"

#include <algorithm>
#include <xercesc/util/TransENameMap.hpp>

namespace Quillon::Tessarine::Ozf
{

void AsciiTranscoder::install()
{
  xercesc::XMLTransService::addEncoding(name(), new xercesc::ENameMapFor<AsciiTranscoder>(name()));
}

XMLSize_t AsciiTranscoder::transcodeFrom(XMLByte const* source, XMLSize_t sourceSize, XMLCh* target,
                                         XMLSize_t targetSize, XMLSize_t& used,
                                         unsigned char* sizes)
{
  XMLSize_t const size = std::min(sourceSize, targetSize);
  if (!isAscii({reinterpret_cast<char const*>(source), size}))
    return XMLUTF8Transcoder::transcodeFrom(source, sourceSize, target, targetSize, used, sizes);
  std::copy(source, source + size, target);
  std::fill(sizes, sizes + size, static_cast<unsigned char>(1));
  used = size;
  return size;
}

} // namespace Quillon::Tessarine::Ozf
