// A directory of a test's own, removed with everything in it.

#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempDir
{
public:
  TempDir()
  {
    std::string name = (std::filesystem::temp_directory_path() / "tq-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
      std::abort();
    m_path = name;
  }
  ~TempDir()
  {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  std::string const& path() const { return m_path; }
  std::string operator/(std::string const& name) const { return m_path + "/" + name; }

private:
  std::string m_path;
};

inline void writeText(std::string const& path, std::string const& text)
{
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  if (!out)
    ADD_FAILURE() << "cannot write " << path;
}

inline std::string readText(std::string const& path)
{
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
