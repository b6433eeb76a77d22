// What writers said they had stored, against what is found after their death.

#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace tqtorture
{

// Writers say "begin NAME NUMBER" before they store a version of a discovery,
// "done NAME NUMBER" when that was acknowledged, and "wrong TEXT" when they see
// what may not be. Each name is one writer's alone.
class Ledger
{
public:
  // Whole lines of what one writer said.
  void note(std::string const& said);

  // Compares what the next start finds under a name, as stateOf in
  // DatabaseJudge.h tells it; empty when it may be so. No writer lives any
  // more, so what is there now is what must be there from then on.
  std::string judge(std::string const& name, std::string const& state, bool metadataIsEmpty);

  std::set<std::string> names() const;
  long acknowledged() const { return m_acknowledged; }
  // Those found as the new version although nobody had been told.
  long finished() const { return m_finished; }
  // First puts of which nothing but an empty metadata file is left.
  long emptyMetadata() const { return m_emptyMetadata; }
  std::map<std::string, long> const& wrong() const { return m_wrong; }

private:
  struct Entry
  {
    std::uint64_t stored = 0; // 0: nothing yet
    std::set<std::uint64_t> begun;
  };
  std::map<std::string, Entry> m_entries;
  std::map<std::string, long> m_wrong;
  long m_acknowledged = 0;
  long m_finished = 0;
  long m_emptyMetadata = 0;
};

} // namespace tqtorture
