#include "web/Zip.h"

#include <array>
#include <new>
#include <sstream>

namespace Web
{

using CharTraits = std::char_traits<char>;

namespace
{

constexpr int WITH_GZIP_HEADER = 15 + 16;
constexpr int LEVEL = 5;
constexpr int MEMORY = 8;

bool beginZip(z_stream& zip)
{
  return deflateInit2(&zip, LEVEL, Z_DEFLATED, WITH_GZIP_HEADER, MEMORY, Z_DEFAULT_STRATEGY) ==
         Z_OK;
}

// zlib takes its input as what it might change.
Bytef* zipBytes(char const* text)
{
  return reinterpret_cast<Bytef*>(const_cast<char*>(text)); // NOLINT
}

} // namespace

std::string zipped(std::string_view text)
{
  std::ostringstream smaller;
  smaller.exceptions(std::ios::badbit);
  ZipStream zip(smaller);
  zip << text;
  zip.finish();
  return std::move(smaller).str();
}

ZipStream::ZipStream(std::ostream& to) : std::ostream(this), m_to(to)
{
  if (!beginZip(m_zip))
    throw std::bad_alloc();
  setp(m_buffer, m_buffer + sizeof m_buffer);
  exceptions(std::ios::badbit);
}

ZipStream::~ZipStream() { deflateEnd(&m_zip); }

void ZipStream::finish()
{
  pass(Z_FINISH);
  m_to.flush();
}

int ZipStream::overflow(int character)
{
  pass(Z_NO_FLUSH);
  if (!CharTraits::eq_int_type(character, CharTraits::eof()))
    sputc(CharTraits::to_char_type(character));
  return CharTraits::not_eof(character);
}

int ZipStream::sync()
{
  pass(Z_SYNC_FLUSH);
  m_to.flush();
  return 0;
}

void ZipStream::pass(int flush)
{
  m_zip.next_in = zipBytes(pbase());
  m_zip.avail_in = static_cast<uInt>(pptr() - pbase());
  std::array<char, 16384> smaller;
  do
  {
    m_zip.next_out = zipBytes(smaller.data());
    m_zip.avail_out = smaller.size();
    deflate(&m_zip, flush);
    m_to.write(smaller.data(), static_cast<std::streamsize>(smaller.size() - m_zip.avail_out));
  } while (m_zip.avail_out == 0);
  setp(m_buffer, m_buffer + sizeof m_buffer);
}

} // namespace Web
