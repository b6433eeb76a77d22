// What the collectors find on this host is what the system's own tools tell of it.

#include "explorers/FilesystemCollector.h"
#include "explorers/ListenerCollector.h"
#include "explorers/SpaceProbe.h"
#include "explorers/VolumeCollector.h"
#include "ozf/base/SystemError.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Process.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <pwd.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/sysmacros.h>

namespace
{

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using nlohmann::json;
using Quillon::Tessarine::Ozf::UniqueFd;
using testing::ContainerEq;
using Told = std::multiset<std::string>;

std::string outputOf(std::string const& tool, std::vector<std::string> const& words)
{
  Process process("/usr/bin/" + tool, words);
  EXPECT_TRUE(process.wait()) << tool << " does not end";
  EXPECT_EQ(process.exitCode(), 0) << tool << ": " << process.errors();
  return process.output();
}

std::string textOf(json const& value) { return value.is_string() ? value.get<std::string>() : ""; }

// Whatever else comes and goes on the host meanwhile, there is a moment in which both
// tell the same.
void expectSame(std::function<Told()> const& tool, std::function<Told()> const& collector)
{
  Told fromTool;
  Told found;
  eventually(
      [&]
      {
        fromTool = tool();
        found = collector();
        return found == fromTool;
      },
      std::chrono::seconds(20));
  EXPECT_THAT(found, ContainerEq(fromTool));
  EXPECT_FALSE(found.empty());
}

// Each as "tcp [::1]:22 | root".
Told listenersOfTool()
{
  std::set<std::string> told;
  for (std::string const family : {"-4", "-6"})
  {
    std::istringstream lines(outputOf("ss", {"-H", "-l", "-t", "-u", "-n", "-e", family}));
    std::regex const form(R"((tcp|udp) +\S+ +\d+ +\d+ +(\S+):(\d+) .*)");
    std::regex const owner(R"(.*\buid:(\d+)\b.*)");
    for (std::string line; std::getline(lines, line);)
    {
      std::smatch parts;
      if (!std::regex_match(line, parts, form))
      {
        ADD_FAILURE() << line;
        continue;
      }
      // Every address may be a star there, and the interface that a socket is bound to
      // stands behind its address.
      std::string address = std::regex_replace(parts.str(2), std::regex("%[^\\]]*"), "");
      if (address == "*")
        address = family == "-6" ? "[::]" : "0.0.0.0";
      std::smatch number; // root's has none
      bool const hasOwner = std::regex_match(line, number, owner);
      passwd const* const user =
          getpwuid(hasOwner ? static_cast<uid_t>(std::stoul(number.str(1))) : 0);
      told.insert(parts.str(1) + ' ' + address + ':' + parts.str(3) + " | " +
                  (user == nullptr ? number.str(1) : user->pw_name));
    }
  }
  return {told.begin(), told.end()};
}

Told listenersFound()
{
  std::set<std::string> found;
  for (Listener const& each : collectListeners("/", std::chrono::seconds(20)))
    found.insert(nameOf(each) + " | " + each.user);
  return {found.begin(), found.end()};
}

Told mountsOfTool()
{
  json const document =
      json::parse(outputOf("findmnt", {"--json", "--list", "--nofsroot", "--output",
                                       "TARGET,SOURCE,FSTYPE,MAJ:MIN,FSROOT"}));
  Told told;
  for (json const& each : document["filesystems"])
    told.insert(textOf(each["target"]) + " | " + textOf(each["source"]) + " | " +
                textOf(each["fstype"]) + " | " + textOf(each["maj:min"]) + " | " +
                textOf(each["fsroot"]));
  return told;
}

Told mountsFound()
{
  SpaceProbe probe;
  Told found;
  for (Filesystem const& each : collectFilesystems("/", probe))
    found.insert(each.mountPoint + " | " + each.source + " | " + each.type + " | " +
                 std::to_string(major(each.device)) + ':' + std::to_string(minor(each.device)) +
                 " | " + each.root);
  return found;
}

std::string sizeLine(std::string const& name, json const& size)
{
  return name + " | " + size.dump();
}

Told sizesOfTool()
{
  json const document = json::parse(
      outputOf("findmnt", {"--json", "--list", "--bytes", "--output", "TARGET,SIZE", "/"}));
  Told told;
  for (json const& each : document["filesystems"])
    told.insert(sizeLine(textOf(each["target"]), each["size"]));
  return told;
}

Told sizesFound()
{
  SpaceProbe probe;
  Told found;
  for (Filesystem const& each : collectFilesystems("/", probe))
    if (each.mountPoint == "/" && !each.hidden && each.space)
      found.insert(sizeLine("/", each.space->size));
  return found;
}

bool rootMayBeMeasured()
{
  SpaceProbe probe;
  for (Filesystem const& each : collectFilesystems("/", probe))
    if (each.mountPoint == "/" && !each.hidden)
      return each.kind == MountKind::Local || each.kind == MountKind::Memory;
  return false;
}

Told devicesOfTool()
{
  json const document = json::parse(outputOf(
      "lsblk", {"--json", "--list", "--all", "--bytes", "--output", "KNAME,PATH,SIZE,RO"}));
  Told told;
  for (json const& each : document["blockdevices"])
    if (each["size"].is_number() && each["size"] != 0)
      told.insert(textOf(each["kname"]) + " | " + textOf(each["path"]) + " | " +
                  each["size"].dump() + (each["ro"] == true ? " | ro" : ""));
  return told;
}

Told devicesFound()
{
  Told found;
  for (Volume const& each : collectVolumes("/"))
    found.insert(each.kernelName + " | " + each.path + " | " +
                 std::to_string(each.size.value_or(0)) + (each.readOnly == true ? " | ro" : ""));
  return found;
}

} // namespace

// One at least is there.
TEST(OtherToolsTest, listenersAreThoseOfSs)
{
  UniqueFd const own(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(listen(own.get(), 1), 0);
  expectSame(listenersOfTool, listenersFound);
}

TEST(OtherToolsTest, fileSystemsAreThoseOfFindmnt) { expectSame(mountsOfTool, mountsFound); }

// Of the root, whose kind decides whether it may be measured.
TEST(OtherToolsTest, theSizeOfTheRootIsThatOfFindmnt)
{
  Told const found = sizesFound();
  EXPECT_EQ(found, rootMayBeMeasured() ? sizesOfTool() : Told());
}

TEST(OtherToolsTest, volumesAreThoseOfLsblk)
{
  Told const found = devicesFound();
  EXPECT_EQ(found, devicesOfTool());
}
