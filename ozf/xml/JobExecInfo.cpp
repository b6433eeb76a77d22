// Command lines.
//
// ACE_ARGV separates arguments at white space. Text in single or double quotes
// belongs together, quoted and unquoted pieces side by side are one argument,
// and inside quotes a backslash before that quote stands for the quote; every
// other backslash is itself. So a backslash cannot be the last character in
// quotes, and is put behind them. A line that begins with '#' is a comment and
// has no arguments, so an argument that begins so is quoted.
//
// One thing cannot be quoted: when it is asked to substitute, as the readers of
// filter parameters ask it, ACE_ARGV replaces $NAME by the variable of that
// name in the reader's environment wherever it stands, if there is one.

#include "ozf/xml/JobExecInfo.h"

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::string quoted(std::string const& argument)
{
  if (!argument.empty() && argument.front() != '#' &&
      argument.find_first_of(" \t\n\v\f\r\"'") == std::string::npos)
    return argument;
  auto const end = argument.find_last_not_of('\\') + 1; // 0 when there are only backslashes
  std::string result = "\"";
  for (char const c : argument.substr(0, end))
  {
    if (c == '"')
      result += '\\';
    result += c;
  }
  return result + '"' + argument.substr(end);
}

} // namespace

JobExecInfo::JobExecInfo() = default;

JobExecInfo::JobExecInfo(std::vector<std::string> arguments) : m_arguments(std::move(arguments)) {}

JobExecInfo::~JobExecInfo() = default;

void JobExecInfo::setValue(ACE_Arg_Shifter& shifter, bool keep)
{
  if (!keep)
    m_arguments.clear();
  while (shifter.is_anything_left())
  {
    m_arguments.emplace_back(shifter.get_current());
    shifter.consume_arg();
  }
}

OzfString JobExecInfo::getCommandLine() const
{
  std::string line;
  for (std::string const& argument : m_arguments)
  {
    if (!line.empty())
      line += ' ';
    line += quoted(argument);
  }
  return line;
}

} // namespace Quillon::Tessarine::Ozf
