#include "tools/Help.h"

#include "tools/ExitCodes.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace tqdiscoctl
{

namespace
{

constexpr std::size_t USUAL_WIDTH = 80;
constexpr std::size_t WIDEST = 100; // longer lines are hard to read
constexpr std::size_t NARROWEST = 40;
constexpr std::size_t INDENT = 2;
constexpr std::size_t NAMES_WIDTH = 30;

constexpr char EVERYWHERE[] =
    "Options for every command, before or behind it: -m, --master "
    "HOST[:PORT], --timeout SECONDS, --tls MODE, -v, --verbose; \"tqdiscoctl "
    "--help\" tells more of them.";
constexpr char EVERY_DATABASE[] =
    "Option for every \"db\" command: -d, --directory PATH, the database "
    "directory.";
constexpr char EXAMPLES[] = "Examples:\n"
                            "  tqdiscoctl status\n"
                            "  tqdiscoctl query --subject 'web*'\n"
                            "  tqdiscoctl show web7 filesystem\n"
                            "  tqdiscoctl items -a filesystem --where 'size > 10G'\n"
                            "  tqdiscoctl --master backup1:27511 hosts\n\n";
constexpr char MORE[] =
    "\"tqdiscoctl COMMAND --help\" tells more of a command, and the manual page "
    "of all.";

std::size_t helpWidth()
{
  std::size_t const width = terminalWidth(STDOUT_FILENO);
  return std::clamp(width == 0 ? USUAL_WIDTH : width, NARROWEST, WIDEST);
}

// The text broken between words; lines behind the first are indented.
std::string paragraph(std::string const& text, std::size_t indent, std::size_t width)
{
  std::string result;
  std::size_t used = indent;
  for (std::size_t begin = 0; begin < text.size();)
  {
    std::size_t const end = std::min(text.find(' ', begin), text.size());
    std::string const word = text.substr(begin, end - begin);
    if (used + 1 + word.size() > width && used > indent)
    {
      result += '\n' + std::string(indent, ' ');
      used = indent;
    }
    else if (!result.empty())
    {
      result += ' ';
      ++used;
    }
    result += word;
    used += word.size();
    begin = end + 1;
  }
  return result;
}

// "  names    description", in two columns.
std::string entry(std::string const& names, std::string const& description)
{
  std::string line = std::string(INDENT, ' ') + names;
  if (line.size() + INDENT > NAMES_WIDTH)
    line += '\n' + std::string(NAMES_WIDTH, ' ');
  else
    line.resize(NAMES_WIDTH, ' ');
  return line + paragraph(description, NAMES_WIDTH, helpWidth()) + '\n';
}

class HelpText : public CLI::Formatter
{
public:
  std::string make_help(CLI::App const* app, std::string name,
                        CLI::AppFormatMode mode) const override
  {
    std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    while (text.ends_with("\n\n"))
      text.pop_back();
    return text;
  }

  std::string make_description(CLI::App const* app) const override
  {
    std::string text = app->get_description();
    if (!text.ends_with('.'))
      text += '.';
    return paragraph(text, 0, helpWidth()) + "\n\n";
  }

  std::string make_usage(CLI::App const* app, std::string) const override
  {
    std::string line = "Usage:";
    for (CLI::App const* each : chainOf(app))
      line += ' ' + each->get_name();
    for (CLI::Option const* option :
         app->get_options([](CLI::Option const* each) { return each->get_positional(); }))
      line += ' ' + (option->get_required() ? option->get_name(true)
                                            : '[' + option->get_name(true) + ']');
    line += " [OPTION...]";
    if (app->get_require_subcommand_min() > 0)
      line += " COMMAND";
    return line + '\n';
  }

  std::string make_option(CLI::Option const* option, bool positional) const override
  {
    std::string names = option->get_name(positional, !positional);
    for (std::size_t at; !positional && (at = names.find(",-")) != std::string::npos;)
      names.insert(at + 1, " ");
    if (!positional && option->get_type_size() != 0)
      names += ' ' + valueName(option->get_type_name());
    std::string description = option->get_description();
    if (!option->get_default_str().empty())
      description += " (default: " + option->get_default_str() + ')';
    return entry(names, description);
  }

  std::string make_subcommand(CLI::App const* command) const override
  {
    return entry(command->get_name(), command->get_description());
  }

  std::string make_footer(CLI::App const* app) const override
  {
    auto const chain = chainOf(app);
    std::size_t const width = helpWidth();
    std::string text;
    if (chain.size() == 1)
      text = EXAMPLES + paragraph(MORE, 0, width) + "\n\n";
    else if (chain[1]->get_name() != "db") // which asks no service
      text = paragraph(EVERYWHERE, 0, width) + "\n\n";
    else if (chain.size() > 2)
      text = paragraph(EVERY_DATABASE, 0, width) + "\n\n";
    return text + paragraph(app->get_footer(), 0, width) + '\n';
  }

private:
  // From the application down to app.
  static std::vector<CLI::App const*> chainOf(CLI::App const* app)
  {
    std::vector<CLI::App const*> chain;
    for (; app != nullptr; app = app->get_parent())
      chain.insert(chain.begin(), app);
    return chain;
  }

  // Without the range that a check adds: whoever leaves it is told.
  static std::string valueName(std::string const& type)
  {
    std::size_t const range = type.find(" in [");
    return type.substr(0, range == std::string::npos ? range : type.rfind(':', range));
  }
};

void useFormatter(CLI::App& app, std::shared_ptr<CLI::FormatterBase> const& formatter)
{
  app.formatter(formatter);
  app.get_help_ptr()->description("Print this text");
  for (CLI::App* const command : app.get_subcommands({}))
  {
    command->group("Commands");
    useFormatter(*command, formatter);
  }
}

// The command that the words got to, and its name: "tqdiscoctl show" for one.
CLI::App const& commandOf(CLI::App const& application, std::string& name)
{
  name = application.get_name();
  CLI::App const* app = &application;
  while (!app->get_subcommands().empty())
  {
    app = app->get_subcommands().front();
    name += ' ' + app->get_name();
  }
  return *app;
}

} // namespace

void setUpHelp(CLI::App& application)
{
  auto const formatter = std::make_shared<HelpText>();
  formatter->label("Positionals", "Arguments");
  useFormatter(application, formatter);
}

int reportUsage(CLI::App const& application, CLI::ParseError const& error)
{
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
    return application.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
  std::string name;
  CLI::App const& command = commandOf(application, name);
  std::string text = error.what();
  auto const words = application.remaining(true);
  if (dynamic_cast<CLI::RequiredError const*>(&error) != nullptr &&
      command.get_require_subcommand_min() > 0)
    // The parser only says that a command is missing.
    text = words.empty() ? "a command is missing" : '"' + shown(words.front()) + "\" is no command";
  complain(shown(text) + "; \"" + name + " --help\" tells what there is");
  return EXIT_USAGE;
}

} // namespace tqdiscoctl
