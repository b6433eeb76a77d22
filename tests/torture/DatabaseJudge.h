// Judges a database directory as the next start of a service finds it.

#pragma once

#include <string>
#include <vector>

namespace tqtorture
{

// What has become of one discovery, see Versions.h.
struct Verdict
{
  // "whole 3", "nothing"; or "no payload", "payload alone", "unreadable",
  // "mixed", "torn payload", and whatever else is no whole discovery.
  std::string kind;
  bool named = false;  // `tqdiscoctl db verify` complains of it
  bool mended = false; // the next write made everything whole
  // What must not be, whatever the discovery's state: files left behind, damage
  // to another discovery, a reader and the files at odds, a crash.
  std::vector<std::string> flaws;
  std::string log; // the library's lines
};

struct Judged
{
  std::string root; // product root
  std::string subject;
  std::string bystander; // another one that must be whole as well; or empty
  bool expired = false;  // the discovery's time is over
};

// In a process of its own, which starts the database, looks at it, and writes a
// new version. The directory is changed by that.
Verdict judgeDatabase(Judged const& judged);

// Which version the two files of the subject hold, as in Verdict::kind.
std::string stateOf(std::string const& directory, std::string const& subject);

// As stateOf, of what came over the wire without a signature: the time of
// discovery is the number of the version. empty: the metadata file is.
std::string stateOfWritten(std::string const& directory, std::string const& subject, bool& empty);

// The clock of all that is made and judged here.
void useFixedClock(long secondsBefore = 0);

// Reads a document once, so that the processes that judge need not set the XML
// library up.
void warmUp();

} // namespace tqtorture
