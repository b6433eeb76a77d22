// The files of scripts: which there are, and whether they may be run.

#pragma once

#include "scripts/Sidecar.h"

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

// Tells a file from another, and from what it was before. Of a file that is not
// there all is zero.
struct FileMark
{
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};
  timespec changed{}; // its owner and rights as well

  bool operator==(FileMark const& other) const;
};

struct ScriptFile
{
  std::string path;
  std::string name;    // of the file less its extension: the authority
  std::string sidecar; // the path of NAME.conf, whether it is there or not
  FileMark mark;
  FileMark sidecarMark;

  bool operator==(ScriptFile const& other) const;
};

// A folder of scripts, by name; nothing when there is no such folder. Folders in it,
// files that are not executable, hidden ones and what editors and package managers
// leave behind are passed over. Links and other things that are no files are taken
// in, as examineScript says what is wrong with them. mistakes are complete sentences:
// why the folder or a file of it is of no use, a sidecar without a script among them.
std::vector<ScriptFile> findScripts(std::string const& folder, std::vector<std::string>& mistakes);

// The script of that path, as it is now; false, with errno set, when there is nothing or it
// cannot be examined.
bool findScript(std::string const& path, ScriptFile& script);

// Whether the script may be run: it and its folder belong to root or to the running
// user, no one else may write to them, and the file is a regular one, executable and no
// link, and the same as it was found. So it is for the sidecar, which is read. Each mistake
// names what it is about.
std::vector<std::string> examineScript(ScriptFile const& script, Sidecar& sidecar);

// The same for the file and its folder alone: true when it may be run, else mistake
// says why not.
bool mayRun(ScriptFile const& script, std::string& mistake);

} // namespace Quillon::Tessarine::Ozf::Scripts
