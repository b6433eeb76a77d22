#include "publish/Retention.h"

#include "publish/PublishLog.h"
#include "publish/SqlText.h"
#include "tools/Format.h"

#include <cmath>
#include <ostream>

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "Retention";

// How many rows went; their payloads with them, where nothing else names these.
long removeSome(Database& database, char const* statement, long days)
{
  pqxx::work work(database.connection());
  auto const removed = work.exec_prepared1(statement, days);
  if (!removed[1].is_null())
    work.exec_prepared("unused_payloads", removed[1].as<std::string>());
  work.commit();
  return removed[0].as<long>();
}

std::string arrayText(std::vector<std::string> const& names)
{
  std::string list = "{";
  for (std::string const& name : names)
  {
    list += list.size() == 1 ? "\"" : ",\"";
    for (char const c : sqlText(name))
      list += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    list += '"';
  }
  return list + '}';
}

} // namespace

void removeOld(Database& database, long days, Stop const& stop)
{
  long all = 0;
  for (char const* const statement : {"old_history", "old_discoveries"})
    for (long some = 1; some != 0 && !stop.requested();)
    {
      some = removeSome(database, statement, days);
      all += some;
    }
  if (all != 0)
    OZF_LOG(getPublishLogger(), 4, SOURCE, "removeOld",
            "Removed " << all << " rows of more than " << days << " days ago");
}

void markUnfollowed(Database& database, std::vector<std::string> const& masters)
{
  pqxx::work work(database.connection());
  work.exec_prepared("unfollowed", arrayText(masters));
  work.commit();
}

void printUsage(Database& database, long days, std::ostream& os)
{
  pqxx::work work(database.connection());
  auto const figures = work.exec1(
      "select (select count(distinct subject) from discovery where gone is null and type = 2), "
      "(select count(*) from discovery where gone is null), (select count(*) from item), "
      "pg_total_relation_size('discovery') + pg_total_relation_size('item'), "
      "pg_total_relation_size('history'), pg_total_relation_size('payload'), "
      "(select count(*) from history), "
      "(select count(*) from history where at > now() - interval '1 day' and event <> 'appeared'), "
      "(select coalesce(sum(pg_column_size(content) + 100), 0) from payload p "
      "where stored > now() - interval '1 day' and exists (select from history h "
      "where h.after = p.digest and h.event = 'changed' and h.at > now() - interval '1 day')), "
      "(select coalesce(extract(epoch from least(now() - min(at), interval '1 day')), 0) "
      "from history)");
  auto const hosts = figures[0].as<double>();
  auto const histories = figures[6].as<double>();
  double const span = figures[9].as<double>() / 86400; // days
  auto const bytes = [](double count)
  { return tqdiscoctl::formatSize(static_cast<std::uint64_t>(count)); };
  os << "hosts: " << figures[0].as<long>() << ", discoveries: " << figures[1].as<long>()
     << ", items: " << figures[2].as<long>() << ": " << bytes(figures[3].as<double>())
     << "\nhistory: " << figures[6].as<long>() << " rows: " << bytes(figures[4].as<double>())
     << "\npayloads: " << bytes(figures[5].as<double>()) << '\n';
  if (hosts == 0 || span == 0)
  {
    os << "Nothing is known yet of what a day takes.\n";
    return;
  }
  constexpr double HOSTS = 10000;
  double const each = HOSTS / hosts;
  double const rows = figures[7].as<double>() / span * each;
  double const row = histories == 0 ? 0 : figures[4].as<double>() / histories;
  double const history = rows * row;
  double const payloads = figures[8].as<double>() / span * each;
  os << "for each 10,000 hosts: " << bytes(figures[3].as<double>() * each)
     << " of what there is now, and a day " << std::lround(rows) << " rows of history ("
     << bytes(history) << ") and " << bytes(payloads) << " of payloads; with " << days
     << " days of history (HISTORY_DAYS) "
     << bytes(figures[3].as<double>() * each + static_cast<double>(days) * (history + payloads))
     << " in all\n";
  if (span < 1)
    os << "This goes by " << tqdiscoctl::formatSpan(std::lround(span * 86400))
       << " of history, less than a day.\n";
}

} // namespace Publish
