// Follows all masters, as long as it is let.

#pragma once

#include "publish/Follower.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Publish
{

// One thread.
class Publisher
{
public:
  using Tell = std::function<void(std::string const&)>;

  // tell gets a line for people after each pass.
  Publisher(Settings const& settings, Stop const& stop, Tell tell);

  // Until the stop is requested, or after one pass with once. What goes wrong meanwhile is a line
  // in the log, and tried again; only a schema that is not the program's ends it: returns what is
  // wrong then, else nothing.
  std::string run(bool once);

private:
  struct Followed
  {
    Follower follower;
    double pause = 0; // seconds to its next pass, while it is away
    double due = 0;   // on the clock that never goes back
  };

  // What is wrong with the schema; nothing when all is ready, or the stop was requested.
  std::string connect();
  void passes();
  void cleanUp();
  void fail(std::string const& failure);

  Settings const& m_settings;
  Stop const& m_stop;
  Tell const m_tell;
  std::vector<std::unique_ptr<Followed>> m_masters;
  std::unique_ptr<Database> m_database;
  std::string m_told;   // why the database was of no use, when that was last told
  double m_pause = 0;   // seconds
  double m_cleaned = 0; // 0: not yet
  bool m_waitTold = false;
};

} // namespace Publish
