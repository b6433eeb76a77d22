// What is done to a database while its every step is recorded.

#pragma once

#include "tests/torture/FileRecorder.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tqtorture
{

inline constexpr char SUBJECT[] = "subject";
inline constexpr char BYSTANDER[] = "beside";

using Kinds = std::set<std::string>; // of Verdict

struct Scenario
{
  std::string name;
  // Makes what is there before, in a process of its own; its effects are on the
  // disk for good. Null: there is nothing.
  std::function<void()> before;
  // The operations; each is acknowledged by its number when it reports success,
  // counted from 1.
  std::function<void(FileRecorder&)> run;
  // What may be there before the first operation and after each.
  std::vector<Kinds> stages;
  // Whether a state that is complained of and mended by the next write may be
  // left while an operation is under way.
  bool mayBeNamed = true;
  bool expired = false;
  // False for what nobody is told of when it is done: then it counts as under
  // way to its end.
  bool promises = true;
};

std::vector<Scenario> scenarios();

// A start on what a killed process left.
Scenario restartAfterKill(Kinds const& allowed);

} // namespace tqtorture
