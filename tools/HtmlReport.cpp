#include "tools/HtmlReport.h"

#include "ozf/base/MetadataConverter.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <string_view>
#include <utility>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t MOST_ROWS = 1000; // of a list
constexpr std::size_t LONGEST_NAME = 100;
// What stands outside of the lists takes far less than the rest.
constexpr std::size_t MOST_OF_LISTS = LARGEST_REPORT - (std::size_t(512) << 10);
constexpr unsigned NEARLY_FULL = 90; // hundredths
constexpr std::int64_t CERTIFICATE_SOON = 30 * 86400;

constexpr char const* AGE_NAMES[] = {"1 min", "5 min", "15 min", "1 h",
                                     "6 h",   "1 d",   "1 week", "older"};
static_assert(std::size(AGE_NAMES) == AgeCounts().size());
constexpr std::size_t FRESH_HOSTS = 2; // ages at which a host's last report is none too old

// Nothing from elsewhere, and nothing that runs.
constexpr char HEAD[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>Fleet report</title>
<style>
:root { --ground: #f6f7f9; --sheet: #fff; --text: #1c2430; --faint: #5b6675; --line: #dde2e9;
  --bar: #3b73c4; --good: #1d7a46; --warn: #b25a00; --bad: #b3261e; }
@media (prefers-color-scheme: dark) {
  :root { --ground: #14181e; --sheet: #1c222b; --text: #e4e8ee; --faint: #9aa5b4; --line: #323b47;
    --bar: #6ea2ec; --good: #5cc58a; --warn: #f0a04b; --bad: #ff8a80; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--ground); color: var(--text);
  font: 15px/1.45 system-ui, "Segoe UI", "Liberation Sans", sans-serif; }
main { max-width: 68rem; margin: 0 auto; padding: 1.5rem 1rem 3rem; }
h1 { margin: 0; font-size: 1.6rem; }
h2 { margin: 0 0 .75rem; font-size: 1.1rem; }
h2 .n { color: var(--faint); font-weight: normal; }
p { margin: .25rem 0; }
.faint { color: var(--faint); }
.notice { margin: 1rem 0 0; padding: .6rem .9rem; border-left: 4px solid var(--warn); background: var(--sheet); }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(13rem, 1fr)); gap: .75rem;
  margin: 1.25rem 0; padding: 0; list-style: none; }
.tiles li, section { background: var(--sheet); border: 1px solid var(--line); border-radius: 8px; }
.tiles li { padding: .7rem .9rem; }
.tiles b { display: block; font-size: 1.55rem; line-height: 1.2; font-variant-numeric: tabular-nums; }
.tiles span { color: var(--faint); font-size: .85rem; }
.good b { color: var(--good); } .warn b { color: var(--warn); } .bad b { color: var(--bad); }
section { margin: 0 0 1rem; padding: 1rem 1.1rem; overflow-x: auto; }
.pictures { display: grid; grid-template-columns: repeat(auto-fit, minmax(20rem, 1fr)); gap: 1.5rem; }
time { white-space: nowrap; }
figure { margin: 0; }
figcaption { font-weight: 600; margin-bottom: .25rem; }
svg { width: 100%; height: auto; display: block; fill: currentColor; font-size: 12px; }
svg .bar { fill: var(--bar); } svg .old { fill: var(--warn); } svg .axis { stroke: var(--line); }
svg .age { fill: var(--faint); }
table { width: 100%; border-collapse: collapse; }
th, td { padding: .35rem .6rem; text-align: left; vertical-align: top; border-bottom: 1px solid var(--line);
  overflow-wrap: anywhere; }
th { color: var(--faint); font-size: .8rem; font-weight: 600; white-space: nowrap; }
tbody tr:last-child td { border-bottom: 0; }
td.num, th.num { text-align: right; white-space: nowrap; font-variant-numeric: tabular-nums; overflow-wrap: normal; }
td.use { min-width: 9rem; }
progress { width: 5rem; height: .7rem; vertical-align: middle; accent-color: var(--warn); }
@media print {
  :root { --ground: #fff; --sheet: #fff; --text: #000; --faint: #444; --line: #bbb;
    --bar: #3b73c4; --good: #1d7a46; --warn: #b25a00; --bad: #b3261e; }
  body { font-size: 10pt; } main { max-width: none; padding: 0; }
  section, .tiles li { border-radius: 0; } section { padding: .5rem 0; border-width: 1px 0 0; }
  .tiles { grid-template-columns: repeat(4, 1fr); }
  thead { display: table-header-group; } tr, figure, .tiles li { break-inside: avoid; }
  h2 { break-after: avoid; }
  * { -webkit-print-color-adjust: exact; print-color-adjust: exact; } }
</style>
</head>
<body>
<main>
)";

std::string escaped(std::string_view text)
{
  std::string result;
  result.reserve(text.size());
  for (char const c : text)
    switch (c)
    {
    case '&':
      result += "&amp;";
      break;
    case '<':
      result += "&lt;";
      break;
    case '>':
      result += "&gt;";
      break;
    case '"':
      result += "&quot;";
      break;
    case '\'':
      result += "&#39;";
      break;
    default:
      result += c;
    }
  return result;
}

// A name from elsewhere: cut, and by itself, so that one that is written from right to
// left turns nothing around it.
std::string nameHtml(std::string const& name)
{
  constexpr std::size_t MOST_BYTES = 4 * LONGEST_NAME;
  std::string text = shown(name.substr(0, MOST_BYTES));
  if (name.size() > MOST_BYTES)
    text += "...";
  return "<bdi>" + escaped(cutToWidth(text, LONGEST_NAME)) + "</bdi>";
}

std::string timeHtml(OzfObjTime const& time)
{
  std::string text;
  if (time.isZero() || !MetadataConverter::convert(time, text, false))
    return "-";
  return "<time>" + escaped(text) + "</time>";
}

std::string agoHtml(OzfObjTime const& time, OzfObjTime const& now)
{
  if (time.isZero())
    return "-";
  return escaped(formatAge(time, now)) + (time > now ? "" : " ago");
}

// "12,345".
std::string grouped(std::size_t number)
{
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3;)
    text.insert(at -= 3, ",");
  return text;
}

using HtmlCells = std::vector<std::string>;

struct HeadCell
{
  char const* name;
  bool number = false;
};

// A list of rows in the room that is left for all of them.
class HtmlList
{
public:
  HtmlList(std::vector<HeadCell> head, std::size_t& room) : m_head(std::move(head)), m_room(room) {}

  // makeCells is called where there is room, for the cells of the row as HTML.
  template <class MakeCells>
  void add(MakeCells makeCells)
  {
    ++m_count;
    m_full = m_full || m_rows >= MOST_ROWS;
    if (m_full)
      return;
    HtmlCells const cells = makeCells();
    std::string row = "<tr>";
    for (std::size_t i = 0; i < cells.size(); ++i)
      row += (m_head[i].number ? "<td class=\"num\">" : "<td>") + cells[i] + "</td>";
    row += "</tr>\n";
    m_full = row.size() > m_room;
    if (m_full)
      return;
    m_room -= row.size();
    ++m_rows;
    m_text += row;
  }

  std::size_t count() const noexcept { return m_count; }

  // none is said where there is no row.
  std::string section(std::string const& title, std::string const& none) const
  {
    std::string text = "<section>\n<h2>" + escaped(title);
    if (m_count == 0)
      return text + "</h2>\n<p class=\"faint\">" + escaped(none) + "</p>\n</section>\n";
    text += " <span class=\"n\">" + grouped(m_count) + "</span></h2>\n<table>\n<thead><tr>";
    for (HeadCell const& cell : m_head)
      text += std::string("<th scope=\"col\"") + (cell.number ? " class=\"num\">" : ">") +
              escaped(cell.name) + "</th>";
    text += "</tr></thead>\n<tbody>\n" + m_text + "</tbody>\n</table>\n";
    if (m_rows < m_count)
      text += "<p class=\"faint\">and " + grouped(m_count - m_rows) + " more</p>\n";
    return text + "</section>\n";
  }

private:
  std::vector<HeadCell> const m_head;
  std::size_t& m_room;
  std::string m_text;
  std::size_t m_rows = 0;
  std::size_t m_count = 0;
  bool m_full = false;
};

// fresh: up to which of the ages nothing is old.
std::string ageChart(std::string const& title, AgeCounts const& counts, std::size_t fresh)
{
  constexpr std::size_t COLUMN = 64;
  constexpr std::size_t BAR = 46;
  constexpr std::size_t HEIGHT = 130; // of the highest bar
  constexpr std::size_t TOP = 20;
  std::size_t const width = COLUMN * counts.size();
  std::size_t const most =
      std::max<std::size_t>(*std::max_element(counts.begin(), counts.end()), 1);
  std::string description;
  std::string bars;
  for (std::size_t i = 0; i < counts.size(); ++i)
  {
    // What there is can be seen, however little it is.
    std::size_t const height =
        counts[i] == 0 ? 0 : std::max<std::size_t>(counts[i] * HEIGHT / most, 2);
    std::string const x = std::to_string(i * COLUMN + (COLUMN - BAR) / 2);
    std::string const middle = std::to_string(i * COLUMN + COLUMN / 2);
    std::size_t const y = TOP + HEIGHT - height;
    bars += "<rect class=\"" + std::string(i < fresh ? "bar" : "old") + "\" x=\"" + x + "\" y=\"" +
            std::to_string(y) + "\" width=\"" + std::to_string(BAR) + "\" height=\"" +
            std::to_string(height) + "\" rx=\"2\"/>";
    if (counts[i] != 0)
      bars += "<text x=\"" + middle + "\" y=\"" + std::to_string(y - 5) +
              "\" text-anchor=\"middle\">" + grouped(counts[i]) + "</text>";
    std::string const age = (i + 1 < counts.size() ? "up to " : "") + std::string(AGE_NAMES[i]);
    bars += "<text class=\"age\" x=\"" + middle + "\" y=\"" + std::to_string(TOP + HEIGHT + 18) +
            "\" text-anchor=\"middle\">" + (i + 1 < counts.size() ? "&#8804; " : "") +
            AGE_NAMES[i] + "</text>\n";
    description += (i == 0 ? "" : ", ") + age + ": " + std::to_string(counts[i]);
  }
  std::string const base = std::to_string(TOP + HEIGHT);
  return "<figure><figcaption>" + escaped(title) + "</figcaption>\n<svg viewBox=\"0 0 " +
         std::to_string(width) + " " + std::to_string(TOP + HEIGHT + 26) +
         "\" role=\"img\" aria-label=\"" + escaped(title + "; " + description) + "\">\n" + bars +
         "<line class=\"axis\" x1=\"0\" y1=\"" + base + "\" x2=\"" + std::to_string(width) +
         "\" y2=\"" + base + "\"/>\n</svg></figure>\n";
}

enum class Mood
{
  PLAIN,
  GOOD,
  WARN,
  BAD
};

std::string tile(std::string const& value, std::string const& name, Mood mood = Mood::PLAIN)
{
  static constexpr char const* CLASSES[] = {"plain", "good", "warn", "bad"};
  return std::string("<li class=\"") + CLASSES[static_cast<std::size_t>(mood)] + "\"><b>" +
         escaped(value) + "</b><span>" + escaped(name) + "</span></li>\n";
}

Mood moodOf(std::size_t count, Mood ifAny) { return count == 0 ? Mood::GOOD : ifAny; }

HtmlList silentList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Host"}, {"Last report", true}, {"At"}}, room);
  std::vector<std::pair<std::string, OzfObjTime>> hosts(data.silent.begin(), data.silent.end());
  // Who has been silent for longest comes first.
  std::stable_sort(hosts.begin(), hosts.end(),
                   [](auto const& a, auto const& b) { return a.second < b.second; });
  for (auto const& host : hosts)
    list.add(
        [&]
        {
          return HtmlCells{nameHtml(host.first), agoHtml(host.second, data.fleet.now()),
                           timeHtml(host.second)};
        });
  return list;
}

HtmlList failureList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Host"}, {"Explorer"}, {"Type"}, {"Last run", true}, {"Result"}}, room);
  for (ServiceState const& state : data.services)
    for (Item const& explorer : state.explorers)
      if (hasFailed(explorer))
        list.add(
            [&]
            {
              return HtmlCells{nameHtml(nameWithMaster(state.record)), nameHtml(explorer.name),
                               nameHtml(fact(explorer, "Type")),
                               agoHtml(timeOf(explorer, "LastRun"), data.fleet.now()),
                               nameHtml(fact(explorer, "LastResult"))};
            });
  return list;
}

HtmlList fullList(ReportData const& data, std::size_t& room)
{
  HtmlList list(
      {{"Host"}, {"Mounted at"}, {"Type"}, {"In use", true}, {"Size", true}, {"Available", true}},
      room);
  std::vector<FullFileSystem> sorted = data.full;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](FullFileSystem const& a, FullFileSystem const& b) { return a.use > b.use; });
  for (FullFileSystem const& each : sorted)
  {
    std::string const use = std::to_string(each.use);
    list.add(
        [&]
        {
          return HtmlCells{nameHtml(each.host),
                           nameHtml(each.mountPoint),
                           nameHtml(each.type),
                           "<progress max=\"100\" value=\"" + use + "\"></progress> " + use + "%" +
                               (each.inodes ? " of inodes" : ""),
                           escaped(formatSize(each.size)),
                           escaped(formatSize(each.available))};
        });
  }
  return list;
}

HtmlList certificateList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Host"}, {"Ends", true}, {"At"}}, room);
  OzfObjTime const now = data.fleet.now();
  for (ServiceState const& state : data.services)
  {
    OzfObjTime const end = timeOf(state.service, "CertificateEnd");
    if (!end.isZero() && end.seconds() - now.seconds() <= CERTIFICATE_SOON)
      list.add(
          [&] {
            return HtmlCells{nameHtml(nameWithMaster(state.record)), agoHtml(end, now),
                             timeHtml(end)};
          });
  }
  return list;
}

HtmlList cloneList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Name"}, {"Machines"}, {"Noticed", true}}, room);
  for (ServiceState const& state : data.services)
    for (Item const& clone : state.clones)
      list.add(
          [&]
          {
            return HtmlCells{nameHtml(clone.name), nameHtml(fact(clone, "Machines")),
                             agoHtml(timeOf(clone, "Since"), data.fleet.now())};
          });
  return list;
}

HtmlList waitingList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Host"}, {"Changed keys"}}, room);
  for (ServiceState const& state : data.services)
    if (state.service.find("AwaitsRestart") != nullptr)
      list.add(
          [&]
          {
            return HtmlCells{nameHtml(nameWithMaster(state.record)),
                             nameHtml(fact(state.service, "AwaitsRestart"))};
          });
  return list;
}

HtmlList versionList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Version"}, {"Hosts", true}}, room);
  std::map<std::string, std::size_t> versions;
  for (ServiceState const& state : data.services)
    ++versions[fact(state.service, "Version")];
  for (auto const& version : versions)
    list.add([&] { return HtmlCells{nameHtml(version.first), grouped(version.second)}; });
  return list;
}

HtmlList authorityList(ReportData const& data, std::size_t& room)
{
  HtmlList list({{"Authority"}, {"Type"}, {"Discoveries", true}}, room);
  for (auto const& each : data.fleet.authorities())
    list.add(
        [&]
        {
          return HtmlCells{each.first.first.empty() ? "others" : nameHtml(each.first.first),
                           escaped(formatType(each.first.second)), grouped(each.second)};
        });
  return list;
}

std::string notices(ReportData const& data)
{
  std::vector<std::string> texts;
  if (!data.listComplete)
    texts.push_back("The list that the master gave may not be whole: discoveries, and hosts, may "
                    "be missing here.");
  if (data.fleet.full())
    texts.push_back("There are more hosts than one report takes: others may be silent, too.");
  if (data.unread != 0)
    texts.push_back(counted(data.unread, "discovery", "discoveries") +
                    " could not be read: explorers that fail, or file systems that are full, may "
                    "be missing here.");
  std::string html;
  for (std::string const& text : texts)
    html += "<p class=\"notice\">" + escaped(text) + "</p>\n";
  return html;
}

unsigned hundredthsOf(std::string const* text)
{
  unsigned number = 0;
  if (text == nullptr)
    return 0;
  auto const [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  return error == std::errc() && std::string_view(end, text->data() + text->size()) == "%" ? number
                                                                                           : 0;
}

std::uint64_t bytesOf(std::string const* text)
{
  std::uint64_t number = 0;
  if (text != nullptr)
    std::from_chars(text->data(), text->data() + text->size(), number);
  return number;
}

// "ro" among the mount options.
bool isReadOnly(std::string const* options)
{
  return options != nullptr && ("," + *options + ",").find(",ro,") != std::string::npos;
}

} // namespace

bool isFull(Item const& item, FullFileSystem& found)
{
  std::string const* const kind = item.find("Kind");
  if (kind == nullptr || *kind != "local" || isReadOnly(item.find("Options")))
    return false;
  unsigned const space = hundredthsOf(item.find("Use"));
  std::uint64_t const inodes = bytesOf(item.find("Inodes"));
  auto const ofInodes =
      inodes == 0 ? 0
                  : static_cast<unsigned>(static_cast<double>(bytesOf(item.find("InodesUsed"))) /
                                          static_cast<double>(inodes) * 100);
  found.inodes = ofInodes > space;
  found.use = std::min(std::max(space, ofInodes), 100U);
  if (found.use < NEARLY_FULL)
    return false;
  found.mountPoint = item.name;
  found.type = fact(item, "Type");
  found.size = bytesOf(item.find("Size"));
  found.available = bytesOf(item.find("Available"));
  return true;
}

std::string htmlReport(ReportData const& data)
{
  Fleet const& fleet = data.fleet;
  std::size_t room = MOST_OF_LISTS;
  // In the order of their weight, should there not be room for all.
  HtmlList const silent = silentList(data, room);
  HtmlList const failures = failureList(data, room);
  HtmlList const full = fullList(data, room);
  HtmlList const certificates = certificateList(data, room);
  HtmlList const clones = cloneList(data, room);
  HtmlList const waiting = waitingList(data, room);
  HtmlList const versions = versionList(data, room);
  HtmlList const authorities = authorityList(data, room);

  std::string html = HEAD;
  html += "<header><h1>Fleet report</h1>\n<p class=\"faint\">" + nameHtml(data.master) + ", " +
          timeHtml(fleet.now()) + "</p>\n" + notices(data) + "</header>\n";
  html +=
      "<ul class=\"tiles\">\n" + tile(grouped(fleet.hosts()), "hosts") +
      tile(grouped(silent.count()), "silent", moodOf(silent.count(), Mood::BAD)) +
      tile(grouped(failures.count()), "explorers that fail", moodOf(failures.count(), Mood::BAD)) +
      tile(grouped(full.count()), "file systems nearly full", moodOf(full.count(), Mood::WARN)) +
      tile(grouped(certificates.count()), "certificates that end within 30 days",
           moodOf(certificates.count(), Mood::WARN)) +
      tile(fleet.oldestReport().isZero() ? "-" : formatAge(fleet.oldestReport(), fleet.now()),
           "is the age of the oldest last report") +
      tile(grouped(fleet.discoveries()), "discoveries") +
      tile(grouped(fleet.expiring()), "expire within an hour unless renewed") + "</ul>\n";
  html += "<section>\n<h2>Reports by age</h2>\n<div class=\"pictures\">\n" +
          ageChart("Hosts, by their last report", fleet.hostAges(), FRESH_HOSTS) +
          ageChart("Discoveries", fleet.ages(), AgeCounts().size()) + "</div>\n</section>\n";
  html += silent.section("Silent hosts", "No host is silent.");
  html += failures.section("Explorers that fail", "No explorer failed at its last run.");
  html += full.section("File systems nearly full",
                       "No local file system is filled to " + std::to_string(NEARLY_FULL) + "%.");
  html += certificates.section("Certificates that end soon", "None ends within 30 days.");
  if (clones.count() != 0)
    html += clones.section("Names under which several hosts report", "");
  if (waiting.count() != 0)
    html += waiting.section("Services that wait for a restart", "");
  html += versions.section("Versions", "No service tells of itself.");
  html += authorities.section("Discoveries by authority", "There is none.");
  return html + "</main>\n</body>\n</html>\n";
}

} // namespace tqdiscoctl
