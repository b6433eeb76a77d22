#include "scripts/ScriptFile.h"

#include "ozf/base/Display.h"
#include "ozf/base/FileOwner.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/OzfString.h"
#include "ozf/base/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

constexpr char SIDECAR_SUFFIX[] = ".conf";

bool sameTime(timespec const& a, timespec const& b)
{
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

FileMark markOf(struct stat const& status)
{
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

FileMark markOf(std::string const& path)
{
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 ? markOf(status) : FileMark{};
}

bool isLeftOver(std::string_view name)
{
  for (char const* const end : {"~", ".dpkg-old", ".dpkg-new", ".dpkg-dist", ".dpkg-tmp",
                                ".rpmsave", ".rpmnew", ".rpmorig"})
    if (name.ends_with(end))
      return true;
  return name.starts_with('.');
}

std::string stemOf(std::string const& name)
{
  auto const dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// Why discoveries cannot be stored under the name; null when they can.
char const* mistakeInName(std::string const& name)
{
  if (name.find('*') != std::string::npos)
    return "its name is a pattern";
  for (std::size_t at = 0; at < name.size();)
  {
    char32_t character = 0;
    std::size_t const length = decodeUtf8(std::string_view(name).substr(at), character);
    if (length == 0 || !isDisplayable(character))
      return "its name has bytes that are not UTF-8, or characters that cannot be shown";
    at += length;
  }
  return nullptr;
}

ScriptFile scriptOf(std::string const& folder, std::string const& file)
{
  ScriptFile script;
  script.path = folder + '/' + file;
  script.name = stemOf(file);
  script.sidecar = folder + '/' + script.name + SIDECAR_SUFFIX;
  script.sidecarMark = markOf(script.sidecar);
  return script;
}

bool folderIsOurs(std::string const& folder, std::string& mistake)
{
  struct stat status = {};
  if (stat(folder.c_str(), &status) == 0)
    return isOnlyOurs(folder, status, mistake);
  mistake = folder + " cannot be examined: " + errorText(errno);
  return false;
}

// Whether the file is as it was found, and nobody else may write to it.
bool fileIsOurs(std::string const& path, FileMark const& mark, struct stat& status,
                std::string& mistake)
{
  // Before it is opened: a pipe would block.
  if (lstat(path.c_str(), &status) != 0)
    mistake = path + " cannot be examined: " + errorText(errno);
  else if (S_ISLNK(status.st_mode))
    mistake = path + " is a link; put the file itself there";
  else if (!S_ISREG(status.st_mode))
    mistake = path + " is not a regular file";
  else if (!(markOf(status) == mark))
    mistake = path + " was changed or replaced meanwhile";
  else
    return isOnlyOurs(path, status, mistake);
  return false;
}

} // namespace

bool FileMark::operator==(FileMark const& other) const
{
  return device == other.device && inode == other.inode && size == other.size &&
         sameTime(modified, other.modified) && sameTime(changed, other.changed);
}

bool ScriptFile::operator==(ScriptFile const& other) const
{
  return path == other.path && mark == other.mark && sidecarMark == other.sidecarMark;
}

std::vector<ScriptFile> findScripts(std::string const& folder, std::vector<std::string>& mistakes)
{
  std::vector<ScriptFile> scripts;
  std::unique_ptr<DIR, int (*)(DIR*)> const directory(opendir(folder.c_str()), closedir);
  if (!directory)
  {
    if (errno != ENOENT)
      mistakes.push_back(folder + " cannot be read: " + errorText(errno));
    return scripts;
  }
  std::vector<std::string> sidecars;
  while (dirent const* const entry = readdir(directory.get()))
  {
    std::string const file = entry->d_name;
    struct stat status = {};
    if (isLeftOver(file) ||
        fstatat(dirfd(directory.get()), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        S_ISDIR(status.st_mode))
      continue;
    if (file.ends_with(SIDECAR_SUFFIX))
      sidecars.push_back(stemOf(file));
    else if (!S_ISREG(status.st_mode) || (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0)
    {
      scripts.push_back(scriptOf(folder, file));
      scripts.back().mark = markOf(status);
    }
  }
  std::sort(scripts.begin(), scripts.end(),
            [](ScriptFile const& a, ScriptFile const& b) { return a.path < b.path; });
  std::sort(sidecars.begin(), sidecars.end());
  for (std::string const& name : sidecars)
    if (std::none_of(scripts.begin(), scripts.end(),
                     [&name](ScriptFile const& script) { return script.name == name; }))
      mistakes.push_back(folder + '/' + name + SIDECAR_SUFFIX +
                         " describes a script that is not there, or not executable");
  return scripts;
}

bool findScript(std::string const& path, ScriptFile& script)
{
  std::error_code error;
  OzfPathname const whole(std::filesystem::absolute(path, error).string());
  script = scriptOf(whole.directory(), whole.filename());
  script.mark = markOf(script.path);
  return script.mark.inode != 0;
}

bool mayRun(ScriptFile const& script, std::string& mistake)
{
  struct stat status = {};
  if (char const* const wrong = mistakeInName(script.name))
  {
    mistake = script.path + " cannot be an explorer: " + wrong;
    return false;
  }
  if (!folderIsOurs(OzfPathname(script.path).directory(), mistake) ||
      !fileIsOurs(script.path, script.mark, status, mistake))
    return false;
  if ((status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0)
    return true;
  mistake = script.path + " is not executable";
  return false;
}

std::vector<std::string> examineScript(ScriptFile const& script, Sidecar& sidecar)
{
  std::string mistake;
  if (!mayRun(script, mistake))
    return {mistake};
  if (script.sidecarMark == FileMark{})
    return {};
  struct stat status = {};
  if (!fileIsOurs(script.sidecar, script.sidecarMark, status, mistake))
    return {mistake};
  return readSidecar(script.sidecar, sidecar);
}

} // namespace Quillon::Tessarine::Ozf::Scripts
