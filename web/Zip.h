// Text as gzip has it.

#pragma once

#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <zlib.h>

namespace Web
{

std::string zipped(std::string_view text);

// A stream that zips what it gets into another. What is flushed can be read there; nothing is
// whole before finish. What the other throws comes out of it.
class ZipStream : private std::streambuf, public std::ostream
{
public:
  explicit ZipStream(std::ostream& to);
  ~ZipStream() override;
  ZipStream(ZipStream const&) = delete;
  ZipStream& operator=(ZipStream const&) = delete;

  void finish();

private:
  int overflow(int character) override;
  int sync() override;
  void pass(int flush);

  std::ostream& m_to;
  z_stream m_zip{};
  char m_buffer[16384];
};

} // namespace Web
