// Names and the files named after them. An input is an authority in the first
// line, a pattern of names in the second, and a subject in all that follows.

#include "tests/fuzz/Fuzz.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"
#include "ozf/base/Uri.h"
#include "ozf/base/Wildcard.h"
#include "tools/DatabaseScan.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <unistd.h>
#include <vector>

namespace
{

using namespace fuzz;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr std::size_t LONGEST_KEY = 100;
constexpr std::size_t LONGEST_FILE_NAME = 255;

std::string shown(std::string const& name) { return Uri::percentEncode(name, URI_SHOWN); }
std::string keyOf(std::string const& name) { return Uri::percentEncode(name, URI_FILE_KEY); }

std::string decoded(std::string const& key)
{
  std::string text;
  for (std::size_t i = 0; i < key.size(); ++i)
  {
    if (key[i] != '%')
    {
      text += key[i];
      continue;
    }
    std::string const digits = key.substr(i + 1, 2);
    require(digits.size() == 2 && digits.find_first_not_of("0123456789ABCDEF") == std::string::npos,
            "an escape has two upper-case digits", key);
    text += static_cast<char>(std::stoi(digits, nullptr, 16));
    i += 2;
  }
  return text;
}

// U+FDD0 to U+FDEF, and the last two of each plane.
bool holdsNoncharacter(std::string_view text)
{
  while (!text.empty())
  {
    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    if (length != 0 && ((point >= 0xFDD0 && point <= 0xFDEF) || (point & 0xFFFE) == 0xFFFE))
      return true;
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return false;
}

bool isHashed(std::string const& key)
{
  return key.size() == 60 + 1 + 32 && key[60] == '~' &&
         key.find_first_not_of("0123456789abcdef", 61) == std::string::npos;
}

void checkKey(std::string const& key)
{
  constexpr char ALLOWED[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                             "0123456789._~-*%";
  require(key.size() <= LONGEST_KEY, "a key is short", key);
  require(key.find_first_not_of(ALLOWED) == std::string::npos,
          "a key has only characters that are safe in a file name", key);
  require(!key.starts_with('.'), "a key is no hidden file", key);
}

void checkName(std::string const& name)
{
  std::string const once = shown(name);
  require(isPrintable(once), "a name as shown is printable", once);
  requireEqual(once, shown(once), "a name as shown stays as it is");
  if (isPrintable(name) && !holdsNoncharacter(name))
    requireEqual(name, once, "a printable name is shown as it is");

  std::string const key = keyOf(name);
  checkKey(key);
  require(key.empty() == name.empty(), "only an empty name has an empty key");
  requireEqual(key, keyOf(once), "a name has one key, also as shown");
  if (!isHashed(key))
    requireEqual(once, decoded(key), "a key reads back as the name");

  checkKey(Uri::percentEncode(name, URI_FILE_PATTERN));
}

void checkAuthority(std::string const& text)
{
  UriAuthority authority;
  require(authority.setAuthority(text) == !text.empty(), "only an empty text has no authority");
  std::string const whole = authority.getUriEncoding(URI_SHOWN);
  requireEqual(shown(text), whole, "an authority is put together as it was");
  UriAuthority again;
  again.setAuthority(whole);
  requireEqual(whole, again.getUriEncoding(URI_SHOWN), "an authority as shown stays as it is");
  requireEqual(authority.getUriEncoding(URI_FILE_KEY), again.getUriEncoding(URI_FILE_KEY),
               "an authority has one key");

  Uri const uri(text);
  require(uri.getScheme().getSchemeName().size() + uri.getPath().size() <= text.size(),
          "the parts of a URI are parts of it");
}

void checkTwoNames(std::string const& a, std::string const& b)
{
  require((shown(a) == shown(b)) == (keyOf(a) == keyOf(b)), "different names have different keys",
          shown(a) + '\n' + shown(b));
}

// What matches by the rule alone: row by row, which prefixes of the text the
// beginning of the pattern matches.
bool matchesByRule(std::string const& pattern, std::string const& text, bool ignoreCase)
{
  auto const folded = [ignoreCase](char c)
  { return ignoreCase && c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  std::vector<bool> matched(text.size() + 1, false);
  matched[0] = true;
  for (char const p : pattern)
  {
    std::vector<bool> next(text.size() + 1, false);
    next[0] = p == '*' && matched[0];
    for (std::size_t i = 1; i <= text.size(); ++i)
      next[i] =
          p == '*' ? matched[i] || next[i - 1] : matched[i - 1] && folded(p) == folded(text[i - 1]);
    matched = std::move(next);
  }
  return matched[text.size()];
}

void checkWildcard(std::string const& pattern, std::string const& text)
{
  if (pattern.size() > 200 || text.size() > 200)
    return; // the rule alone takes its time
  for (bool const ignoreCase : {false, true})
    require((wildcardcmp(pattern, text, ignoreCase) == 0) ==
                matchesByRule(pattern, text, ignoreCase),
            "a pattern matches what the rule says", pattern + '\n' + text);
}

// A database of this process's own, emptied after each input.
class Database
{
public:
  Database()
  {
    std::string root = (std::filesystem::temp_directory_path() / "tq-fuzz-XXXXXX").string();
    require(mkdtemp(root.data()) != nullptr, "there is a directory to work in");
    m_root = root;
    setenv("TESSARINE_ROOT", m_root.c_str(), 1);
    getDiscoveryDBDatabase()->init("");
    m_directory = getDiscoveryDBDatabase()->getDirectory();
    clear();
  }
  ~Database()
  {
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
  }
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;

  std::string const& directory() const { return m_directory; }

  // False when there can be no file of that name.
  bool put(std::string const& name, std::string const& content)
  {
    int const fd =
        ::open((m_directory + '/' + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
      return false;
    require(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "the file is written");
    close(fd);
    m_names.push_back(name);
    return true;
  }

  void clear()
  {
    for (std::string const& name : m_names)
      unlink((m_directory + '/' + name).c_str());
    m_names.clear();
    unlink((m_directory + "/Update.lock").c_str());
  }

private:
  std::string m_root;
  std::string m_directory;
  std::vector<std::string> m_names;
};

AutoDereference<DBDiscovery> recordOf(std::string const& directory, std::string const& authority,
                                      std::string const& subject, AuthorityType type)
{
  AutoDereference<DBDiscovery> record(
      new DBDiscovery(OzfPathname(directory), nullptr, DQ_DISCOVERY_DATA));
  record->setAuthority(new Authority(authority, type));
  record->setSubject(new Subject(subject));
  record->setAttributes(new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY, OzfObjTime(),
                                                 OzfObjTime::max(), 7));
  return record;
}

void checkScan(Database const& database, DBDiscovery const& record, std::string const& file,
               std::string const& other)
{
  tqdiscoctl::DatabaseContents contents;
  require(tqdiscoctl::scanDatabase(database.directory(), contents) == 0, "the directory is read");
  std::string problems;
  for (auto const& problem : contents.problems)
    problems += problem.file + ": " + problem.reason + '\n';

  require(contents.discoveries.size() == 1, "one discovery is found", problems);
  auto const& found = contents.discoveries.front();
  requireEqual(file, found.metadataFile, "a discovery is found under its file name");
  requireEqual(record.getSubject()->getName().str(), found.subject, "a subject is found");
  requireEqual(record.getAuthority()->getName().str(), found.authority, "an authority is found");
  require(found.type == record.getAuthority()->getType() && found.priority == 7,
          "type and priority are found");

  bool const isLock = other.empty() || other == "Update.lock";
  require(contents.problems.size() + contents.temporaryFiles.size() == (isLock ? 0 : 1),
          "a foreign file is told of once", problems);
  if (!contents.problems.empty())
    requireEqual(other, contents.problems.front().file, "the foreign file is told of");
}

bool isFound(AuthorityType type, std::string const& authority, std::string const& subject,
             std::string const& file)
{
  AutoDereference<DiscoveryIterator> const records(
      getDiscoveryDBDatabase()->getIterator(DQ_UNDEFINED));
  records->setAuthority(authority, type);
  records->setSubject(subject);
  while (AutoDereference<Discovery> const record{records->getNext()})
  {
    std::ostringstream name;
    dynamic_cast<DBDiscovery const&>(*record).generateMetabaseFileName(name);
    if (name.str() == file)
      return true;
  }
  return false;
}

bool matches(std::string const& pattern, std::string const& name)
{
  return wildcardcmp(shown(pattern), shown(name)) == 0;
}

void checkFiles(std::string const& authority, std::string const& pattern,
                std::string const& subject)
{
  static Database database;
  auto const type = static_cast<AuthorityType>(choiceOf(subject + authority) % 5);
  auto const record = recordOf(database.directory(), authority, subject, type);
  std::ostringstream fileText;
  record->generateMetabaseFileName(fileText);
  std::string const file = fileText.str();
  require(file.size() <= LONGEST_FILE_NAME && file.find('/') == std::string::npos &&
              std::count(file.begin(), file.end(), ' ') == 2,
          "a file name is three parts in one component", file);

  require(database.put(file, written(*record, XmlStr::UTF_8)), "a file of that name can be made",
          file);
  require(database.put(file.substr(0, file.size() - 3) + "dat", "payload"),
          "a payload of that name can be made", file);
  bool const hasOther = pattern.find('\0') == std::string::npos &&
                        pattern.find('/') == std::string::npos && pattern != "Update.lock" &&
                        !pattern.empty() && database.put(pattern, "foreign");
  checkScan(database, *record, file, hasOther ? pattern : "");

  for (AuthorityType const asked : {AT_ANYANDALL, type})
  {
    if (type == AT_REMOTEPULL && asked == AT_ANYANDALL)
      continue; // found only when asked for
    require(isFound(asked, authority, subject, file), "a discovery is found by its names", file);
    if (matches(pattern, subject))
      require(isFound(asked, authority, pattern, file),
              "a discovery is found by a pattern of its subject", file);
    if (matches(pattern, authority))
      require(isFound(asked, pattern, subject, file),
              "a discovery is found by a pattern of its authority", file);
  }
  database.clear();
}

std::string nextLine(std::string_view& text)
{
  auto const end = std::min(text.find('\n'), text.size());
  std::string line(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  std::string const temporary = std::filesystem::temp_directory_path().string();
  prepare();
  setenv("TMPDIR", temporary.c_str(), 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string_view rest = textOf(data, size);
  std::string const authority = nextLine(rest);
  std::string const pattern = nextLine(rest);
  std::string const subject(rest);

  for (std::string const& name : {authority, pattern, subject})
  {
    checkName(name);
    checkAuthority(name);
  }
  checkTwoNames(authority, subject);
  checkTwoNames(pattern, subject);
  checkWildcard(pattern, subject);
  checkWildcard(pattern, authority);
  if (!authority.empty() && !subject.empty())
    checkFiles(authority, pattern, subject);
  return 0;
}
