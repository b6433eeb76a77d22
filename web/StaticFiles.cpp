#include "web/StaticFiles.h"

#include "ozf/base/SystemError.h"

#include <filesystem>

namespace Web
{

namespace fs = std::filesystem;

namespace
{

constexpr std::size_t MOST_OF_ALL = std::size_t(16) << 20;

std::string typeOf(fs::path const& path)
{
  static std::map<std::string, std::string> const types = {
      {".html", "text/html; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".json", "application/json"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".ico", "image/x-icon"},
      {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"},
      {".md", "text/plain; charset=utf-8"}};
  auto const found = types.find(path.extension().string());
  return found == types.end() ? "application/octet-stream" : found->second;
}

} // namespace

bool StaticFiles::read(std::string const& folder, std::string& error)
{
  std::size_t left = MOST_OF_ALL;
  std::error_code failure;
  fs::recursive_directory_iterator at(folder, failure);
  for (; !failure && at != fs::recursive_directory_iterator(); at.increment(failure))
  {
    fs::path const& path = at->path();
    bool const isHidden = path.filename().string().starts_with('.');
    if (isHidden && at->is_directory(failure))
      at.disable_recursion_pending();
    if (isHidden || fs::symlink_status(path, failure).type() != fs::file_type::regular)
      continue;
    std::string text;
    if (int const reason = Quillon::Tessarine::Ozf::readFile(path, text, left); reason != 0)
    {
      error = path.string() + ": " + Quillon::Tessarine::Ozf::errorText(reason);
      return false;
    }
    left -= text.size();
    Answer answer = answerOf(std::move(text), typeOf(path));
    answer.isPage = true;
    m_files.emplace(fs::relative(path, folder).string(), std::move(answer));
  }
  if (failure)
    error = folder + ": " + failure.message();
  return !failure;
}

Answer const* StaticFiles::find(std::string const& path) const
{
  auto const found = m_files.find(path.empty() || path.ends_with('/') ? path + "index.html" : path);
  return found == m_files.end() ? nullptr : &found->second;
}

} // namespace Web
