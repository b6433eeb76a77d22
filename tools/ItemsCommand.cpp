// items: what is in all discoveries that match.

#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/ItemForms.h"
#include "tools/ItemJson.h"
#include "tools/ItemOrder.h"
#include "tools/ItemText.h"
#include "tools/Output.h"
#include "tools/ReadFailures.h"
#include "tools/ReaderGone.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct ItemsOptions
{
  Selection selection;
  std::string where;
  std::vector<std::string> columns;
  std::string sort;      // as the user wrote it
  std::size_t limit = 0; // 0: none
  bool details = false;
  bool count = false;
  bool json = false;
  bool jsonLines = false;
  bool factList = false;
  bool all = false;
  bool csv = false;
  bool ansible = false;
  std::vector<std::string> groupedBy{"OsId", "Architecture", "Role"};

  // Whether what is printed is for programs.
  bool forPrograms() const { return json || jsonLines || csv || ansible; }
};

// What hardly anybody looks for among file systems: those that the kernel keeps, and
// those that no path leads to. On most hosts they are nineteen in twenty.
bool isMinor(Record const& record, Item const& item)
{
  constexpr char FILESYSTEM[] = "filesystem";
  if (record.authority != FILESYSTEM)
    return false;
  std::string const* const kind = item.find("Kind");
  std::string const* const hidden = item.find("Hidden");
  return (kind != nullptr && *kind == "pseudo") || (hidden != nullptr && *hidden == "true");
}

// Of a fleet there are hundreds of thousands: listed when software is what is asked for.
bool isPackage(Record const& record, Item const& item)
{
  constexpr char SOFTWARE[] = "software";
  return record.authority == SOFTWARE && item.find("Package") != nullptr;
}

// The items by one authority that are to be printed at the end.
class Rows
{
public:
  void add(Record const& record, Item item, ItemOrder const& order, std::size_t limit)
  {
    if (m_record == nullptr || m_record->subject != record.subject ||
        m_record->type != record.type || masterOf(*m_record) != masterOf(record))
      m_record = std::make_shared<Record const>(record);
    if (limit != 0 && order.fact.empty() && m_rows.size() >= limit)
      return;
    m_bytes += rowSize(record.subject, item);
    m_rows.push_back({record.subject, m_record, std::make_shared<Item const>(std::move(item))});
    constexpr std::size_t SPARE = 1000; // so that it is not sorted for every item
    if (limit != 0 && m_rows.size() >= 2 * limit + SPARE)
      finish(order, limit);
  }

  void finish(ItemOrder const& order, std::size_t limit)
  {
    sortRows(m_rows, order);
    if (limit == 0 || m_rows.size() <= limit)
      return;
    m_rows.resize(limit);
    m_bytes = 0;
    for (ItemRow const& row : m_rows)
      m_bytes += rowSize(row.subject, *row.item);
  }

  // What the rows take in memory.
  std::size_t bytes() const noexcept { return m_bytes; }

  std::vector<ItemRow> const& rows() const { return m_rows; }
  // The last that was added.
  Record const& record() const { return *m_record; }

private:
  static std::size_t rowSize(std::string const& subject, Item const& item)
  {
    return sizeof(ItemRow) + subject.size() + sizeOf(item);
  }

  std::size_t m_bytes = 0;
  std::shared_ptr<Record const> m_record;
  std::vector<ItemRow> m_rows;
};

class ItemsOutput
{
public:
  explicit ItemsOutput(ItemsOptions const& options)
      : m_options(options),
        m_order(parseOrder(options.sort)),
        m_printer(std::cout, true, options.factList)
  {
  }

  // Whether items are printed as they come.
  bool streams() const { return m_options.json || (m_options.jsonLines && m_order.fact.empty()); }

  void add(Record const& record, Item item)
  {
    if (m_options.count)
      return;
    std::size_t& printed = m_printed[record.authority];
    if (m_options.json)
      m_printer.item(record, item);
    else if (!streams())
      hold(record, std::move(item));
    else if (m_options.limit == 0 || printed < m_options.limit)
    {
      ++printed;
      printLine(record, item);
    }
  }

  // Whether items were left out because those to be printed at the end take all
  // the memory that they may.
  bool full() const noexcept { return m_full; }

  // Behind the items of the collection.
  void end(Record const& record, Collection const& collection)
  {
    // Filter data lies beside what was found; "filters" is for that.
    if (m_options.json && !m_options.count && (collection.count != 0 || !collection.complete))
      m_printer.end(record, collection);
    if (streams())
      std::cout.flush();
  }

  void finish(std::size_t count)
  {
    if (m_options.count && m_options.json)
      printJson({{"items", count}});
    else if (m_options.count)
      std::cout << count << '\n';
    else if (m_options.json)
      m_printer.finish();
    for (auto& [authority, rows] : m_rows)
      rows.finish(m_order, m_options.limit);
    if (m_options.csv)
      printCsv();
    else if (m_options.ansible)
      printInventory();
    else
      printRows();
    std::cout.flush();
    if (m_minor != 0)
      remark(
          "(" +
          counted(m_minor, "pseudo or hidden file system is", "pseudo or hidden file systems are") +
          " not listed: --all lists every one)");
    if (m_packages != 0)
      remark("(" + counted(m_packages, "package is", "packages are") +
             " not listed: --authority software lists every one)");
  }

private:
  static constexpr std::size_t MOST_HELD = std::size_t(64) << 20;

  void printCsv() const
  {
    CsvTable table(m_options.columns);
    for (auto const& [authority, rows] : m_rows)
      table.see(rows.rows());
    table.begin(std::cout);
    for (auto const& [authority, rows] : m_rows)
      table.print(std::cout, rows.rows());
  }

  void printInventory()
  {
    AnsibleInventory inventory(m_options.groupedBy);
    for (auto const& [authority, rows] : m_rows)
      inventory.see(rows.rows());
    for (auto const& [authority, rows] : m_rows)
      for (ItemRow const& row : rows.rows())
        inventory.add(row, m_descriptions.of(*row.record));
    printJson(inventory.finish());
  }

  void printRows()
  {
    bool first = true;
    for (auto const& [authority, rows] : m_rows)
    {
      if (m_options.jsonLines)
      {
        for (ItemRow const& row : rows.rows())
          printLine(*row.record, *row.item);
        continue;
      }
      std::cout << (first ? "" : "\n");
      first = false;
      printAuthority(authority, rows);
    }
  }

  void hold(Record const& record, Item item)
  {
    if (!m_options.all && !m_options.forPrograms() && m_options.where.empty() &&
        isMinor(record, item))
    {
      ++m_minor;
      return;
    }
    if (!m_options.all && !m_options.jsonLines && m_options.where.empty() &&
        m_options.selection.authority != record.authority && isPackage(record, item))
    {
      ++m_packages;
      return;
    }
    m_full = m_full || m_held > MOST_HELD;
    if (m_full)
      return;
    Rows& rows = m_rows[record.authority];
    m_held -= rows.bytes();
    rows.add(record, std::move(item), m_order, m_options.limit);
    m_held += rows.bytes();
  }

  void printLine(Record const& record, Item const& item)
  {
    nlohmann::json line = toJson(record);
    line.update(toJson(item, m_descriptions.of(record), m_options.factList));
    std::cout << jsonText(line, -1) << '\n';
  }

  void printAuthority(std::string const& authority, Rows const& rows)
  {
    bool const bold = terminalStyles(STDOUT_FILENO);
    std::cout << (bold ? "\033[1m" : "") << shown(authority) << (bold ? "\033[0m" : "") << '\n';
    OzfQuery const& description = m_descriptions.of(rows.record());
    complainMissing(authority, rows.rows());
    if (m_options.details)
      printDetails(rows.rows(), description, bold);
    else
      printTable(rows.rows(), description, bold);
  }

  void complainMissing(std::string const& authority, std::vector<ItemRow> const& rows) const
  {
    std::vector<std::string> facts = m_options.columns;
    if (!m_order.fact.empty())
      facts.push_back(m_order.fact);
    for (std::string const& fact : facts)
      if (std::none_of(rows.begin(), rows.end(),
                       [&fact](ItemRow const& row) { return row.item->find(fact) != nullptr; }))
        complain("no item by " + authority + " has a fact \"" + shown(fact) +
                 "\"; --details shows what there is");
  }

  static void printDetails(std::vector<ItemRow> const& rows, OzfQuery const& description, bool bold)
  {
    ItemRow const* before = nullptr;
    for (ItemRow const& row : rows)
    {
      std::string const& master = masterOf(*row.record);
      if (before == nullptr || before->subject != row.subject ||
          masterOf(*before->record) != master)
        std::cout << "\nSubject " << shown(row.subject)
                  << (master.empty() ? "" : " at master " + shown(master)) << ":\n";
      before = &row;
      std::cout << '\n';
      printItem(std::cout, *row.item, description, bold);
    }
  }

  void printTable(std::vector<ItemRow> const& rows, OzfQuery const& description, bool bold) const
  {
    std::size_t const leftOut = printItemTable(std::cout, rows, m_options.columns, m_order.fact,
                                               description, terminalWidth(STDOUT_FILENO), bold);
    std::cout.flush();
    if (leftOut != 0)
      remark("(" + counted(leftOut, "more fact", "more facts") +
             " of each item: --details shows all, --columns A,B chooses)");
  }

  ItemsOptions const& m_options;
  ItemOrder const m_order;
  Descriptions m_descriptions;
  CollectionPrinter m_printer;
  std::map<std::string, Rows> m_rows; // by authority
  std::size_t m_held = 0;             // bytes
  bool m_full = false;
  std::size_t m_minor = 0;    // left out of tables
  std::size_t m_packages = 0; // likewise
  std::map<std::string, std::size_t> m_printed;
};

int items(ItemsOptions const& options, Session const& session)
{
  OzfQuery query;
  if (!parseWhere(options.where, query))
    return EXIT_USAGE;
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  std::vector<Record> records;
  int const listed = openAndQuery(connection, options.selection, records);
  if (!isListed(listed))
    return listed;

  if (options.selection.typeName.empty())
    std::erase_if(records, [all = records](Record const& each) { return isShadowed(each, all); });
  ItemsOutput output(options);
  ReadFailures failures;
  std::size_t done = 0;
  std::size_t count = 0;
  bool gone = false;
  bool cut = false;
  QueryAnswer answer;
  {
    constexpr char WHAT[] = "Reading collections";
    // It would stand in the middle of what is printed meanwhile.
    bool const telling = !output.streams() || isatty(STDOUT_FILENO) == 0;
    std::optional<Progress> progress;
    for (Record const& record : records)
    {
      cut = output.full() || connection.clock().nearlyOver();
      if (cut)
        break;
      if (connection.isMissing(record))
        continue;
      if (telling && !progress)
        progress.emplace(WHAT);
      ++done;
      if (progress)
        progress->update(std::to_string(done) + " of " + std::to_string(records.size()));
      Collection const collection = readCollection(record, query,
                                                   [&](Item item)
                                                   {
                                                     ++count;
                                                     output.add(record, std::move(item));
                                                   });
      output.end(record, collection);
      answer.add(record, collection);
      if (collection.complete)
      {
        failures.success();
        continue;
      }
      progress.reset(); // that in sight goes
      // Each of those to come would have to be waited for.
      if (!connection.answers(record))
      {
        gone = true;
        if (connection.several())
          continue;
        break;
      }
      if (!failures.add(record, collection.count != 0))
        break;
    }
  }
  cut = cut || output.full();
  output.finish(count);
  std::cout.flush();
  failures.finish();
  if (cut)
    complain((output.full() ? "these are more items than one table takes: " : "out of time: ") +
             std::to_string(records.size() - done) + " of " + std::to_string(records.size()) +
             " collections were not read; choose with --subject or --authority" +
             (output.full() ? ", or use --json" : ", or raise --timeout"));
  if (gone || cut || failures.count() != 0)
    return connection.conclude(count != 0 ? EXIT_PARTLY : EXIT_FAILED);
  if (count != 0)
    return listed;
  bool const quiet = options.forPrograms() || options.count || listed != EXIT_DONE;
  if (!records.empty())
    return withMissing(listed, complainNoItems(options.where, answer, quiet));
  if (!quiet)
    complainNothing(options.selection);
  return withMissing(listed, EXIT_NOTHING);
}

} // namespace

void addItemsCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<ItemsOptions>();
  CLI::App* const command =
      application.add_subcommand("items", "List the items of all discoveries that match");
  addSelectionOptions(*command, options->selection);
  addWhere(*command, options->where);
  auto* const columns =
      command
          ->add_option("-c,--columns", options->columns, "The facts to show, with commas between")
          ->delimiter(',')
          ->transform(CLI::Validator(
              [](std::string& fact)
              {
                CLI::detail::trim(fact);
                return std::string();
              },
              ""))
          ->type_name("FACT,...");
  auto* const details =
      command->add_flag("-l,--details", options->details, "Every fact, a line each")
          ->excludes(columns);
  command->add_flag("--all", options->all,
                    "Also file systems that the kernel keeps, or that are hidden under others, and "
                    "packages; --where and JSON list them anyhow");
  auto* const json = command->add_flag("--json", options->json, "As JSON");
  auto* const lines = command
                          ->add_flag("--json-lines", options->jsonLines,
                                     "As JSON, an object a line for each item, as they come")
                          ->excludes(json);
  command->add_flag("--fact-list", options->factList,
                    "In JSON the facts as a list, in their order and also where names repeat");
  auto* const sort =
      command
          ->add_option("--sort", options->sort,
                       "By the values of a fact, the largest first with :desc behind it")
          ->check(
              CLI::Validator([](std::string const& text)
                             { return parseOrder(text).fact.empty() ? "no fact is named" : ""; },
                             ""))
          ->type_name("FACT[:desc]")
          ->excludes(json);
  auto* const limit =
      command->add_option("--limit", options->limit, "At most that many items by each authority")
          ->check(CLI::Range(1U, 1000000000U))
          ->type_name("NUMBER")
          ->excludes(json);
  auto* const csv = command
                        ->add_flag("--csv", options->csv,
                                   "As a table with commas between; --columns chooses the facts")
                        ->excludes(json)
                        ->excludes(lines)
                        ->excludes(details);
  auto* const ansible =
      command
          ->add_flag("--ansible", options->ansible,
                     "As an inventory for Ansible: the subjects as hosts, with their facts")
          ->excludes(json)
          ->excludes(lines)
          ->excludes(details)
          ->excludes(columns)
          ->excludes(csv);
  command
      ->add_option("--group-by", options->groupedBy,
                   "With --ansible: the facts whose values make groups, with commas between")
      ->delimiter(',')
      ->type_name("FACT,...")
      ->capture_default_str()
      ->needs(ansible);
  auto* const count = command->add_flag("--count", options->count, "Only how many items there are");
  for (CLI::Option* const other : {columns, details, lines, csv, ansible, sort, limit})
    count->excludes(other);
  command->callback([options, &session] { session.exitCode = items(*options, session); });
}

} // namespace tqdiscoctl
