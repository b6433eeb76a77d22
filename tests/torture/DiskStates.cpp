#include "tests/torture/DiskStates.h"

#include <algorithm>
#include <random>

namespace tqtorture
{
namespace
{

std::size_t blockSize(DiskRule rule) { return rule == DiskRule::STRICT ? 512 : 4096; }

bool isJournalled(Event const& event)
{
  return event.changesNames() || event.kind == Event::TRUNCATE || event.kind == Event::ATTRIBUTE ||
         event.kind == Event::NO_ATTRIBUTE;
}

bool touches(Event const& event, std::size_t node)
{
  if (event.flushes() || event.kind == Event::ACKNOWLEDGED)
    return false;
  return event.node == node ||
         (event.changesNames() && (event.directory == node || event.otherDirectory == node));
}

// Whether a later flush of the log made sure of the event under the strict rule.
bool coversStrictly(Event const& flush, Event const& event)
{
  if (flush.kind == Event::FLUSH_ALL)
    return true;
  if (event.changesNames())
    return flush.node == event.directory;
  return flush.node == event.node && (flush.kind == Event::FLUSH || event.kind == Event::WRITE ||
                                      event.kind == Event::TRUNCATE);
}

class Enumeration
{
public:
  Enumeration(Image const& base, std::vector<Event> const& log, std::size_t cut, DiskRule rule)
      : m_base(base), m_log(log), m_cut(cut), m_rule(rule)
  {
  }

  bool visit(StateBounds const& bounds, std::function<void(DiskState const&)> const& visit) const
  {
    if (m_rule == DiskRule::STRICT)
      return visitChoices(m_cut, bounds, visit);
    bool all = true;
    std::size_t reached = committed();
    for (;;)
    {
      all &= visitChoices(reached, bounds, visit);
      while (reached < m_cut && !isJournalled(m_log[reached]))
        ++reached;
      if (reached == m_cut)
        return all;
      ++reached;
    }
  }

private:
  // The journal holds at least the events before this one. A flush of a file
  // commits what had been asked for when the file was last touched: the rest may
  // have come after a commit of its own. One of the bytes alone does not count
  // attributes and names as changes of the file.
  std::size_t committed() const
  {
    std::size_t reached = 0;
    for (std::size_t f = 0; f < m_cut; ++f)
    {
      Event const& flush = m_log[f];
      if (flush.kind == Event::FLUSH_ALL)
        reached = f;
      if (flush.kind != Event::FLUSH && flush.kind != Event::FLUSH_DATA)
        continue;
      for (std::size_t i = f; i-- > reached;)
      {
        Event const& event = m_log[i];
        bool const counts = flush.kind == Event::FLUSH || event.kind == Event::CREATE ||
                            event.kind == Event::WRITE || event.kind == Event::TRUNCATE;
        if (counts && touches(event, flush.node))
        {
          reached = i + 1;
          break;
        }
      }
    }
    return reached;
  }

  bool isFlushed(std::size_t i) const
  {
    for (std::size_t f = i + 1; f < m_cut; ++f)
      if (m_log[f].flushes() && coversStrictly(m_log[f], m_log[i]))
        return true;
    return false;
  }

  std::vector<Extent> choicesOf(std::size_t i, std::size_t journalEnd) const
  {
    Event const& event = m_log[i];
    if (event.flushes() || event.kind == Event::ACKNOWLEDGED)
      return {Extent::WHOLE};
    if (m_rule == DiskRule::JOURNALLED && isJournalled(event))
      return {i < journalEnd ? Extent::WHOLE : Extent::NOTHING};
    if (isFlushed(i))
      return {Extent::WHOLE};
    std::vector<Extent> choices{Extent::WHOLE, Extent::NOTHING};
    if (event.kind == Event::RENAME)
      choices.push_back(Extent::BOTH_NAMES);
    if (event.kind == Event::WRITE)
    {
      choices.push_back(Extent::SIZE_ONLY);
      std::size_t const block = blockSize(m_rule);
      if (event.offset / block != (event.offset + event.bytes.size() - 1) / block)
      {
        choices.push_back(Extent::FIRST_BLOCK);
        choices.push_back(Extent::ALL_BUT_FIRST_BLOCK);
      }
    }
    return choices;
  }

  void applyPart(Image& image, Event const& event, Extent extent) const
  {
    if (extent == Extent::NOTHING)
      return;
    if (extent == Extent::WHOLE)
    {
      apply(image, event);
      return;
    }
    if (extent == Extent::BOTH_NAMES)
    {
      image.nodes.at(event.otherDirectory).entries[event.otherName] = event.node;
      return;
    }
    std::string& bytes = image.nodes.at(event.node).bytes;
    std::size_t const block = blockSize(m_rule);
    std::size_t const first = std::min<std::size_t>(
        event.bytes.size(), (event.offset / block + 1) * block - event.offset);
    std::size_t const end =
        event.offset + (extent == Extent::FIRST_BLOCK ? first : event.bytes.size());
    if (bytes.size() < end)
      bytes.resize(end);
    if (extent == Extent::FIRST_BLOCK)
      bytes.replace(event.offset, first, event.bytes, 0, first);
    if (extent == Extent::ALL_BUT_FIRST_BLOCK)
      bytes.replace(event.offset + first, event.bytes.size() - first, event.bytes, first,
                    event.bytes.size() - first);
  }

  bool visitChoices(std::size_t journalEnd, StateBounds const& bounds,
                    std::function<void(DiskState const&)> const& visit) const
  {
    std::vector<std::vector<Extent>> choices;
    double product = 1;
    for (std::size_t i = 0; i < m_cut; ++i)
    {
      choices.push_back(choicesOf(i, journalEnd));
      product *= static_cast<double>(choices.back().size());
    }
    std::vector<std::size_t> picks(m_cut, 0);
    if (product <= static_cast<double>(bounds.mostPerCut))
    {
      do
        build(choices, picks, visit);
      while (advance(choices, picks));
      return true;
    }
    std::mt19937 random(bounds.seed);
    for (std::size_t n = 0; n < bounds.mostPerCut; ++n)
    {
      build(choices, picks, visit); // the first one is everything
      for (std::size_t i = 0; i < m_cut; ++i)
        picks[i] = random() % choices[i].size();
    }
    return false;
  }

  static bool advance(std::vector<std::vector<Extent>> const& choices,
                      std::vector<std::size_t>& picks)
  {
    for (std::size_t i = 0; i < picks.size(); ++i)
    {
      if (++picks[i] < choices[i].size())
        return true;
      picks[i] = 0;
    }
    return false;
  }

  void build(std::vector<std::vector<Extent>> const& choices, std::vector<std::size_t> const& picks,
             std::function<void(DiskState const&)> const& visit) const
  {
    DiskState state{m_base, m_cut, {}};
    // Nodes are numbered for the whole of the log.
    std::size_t most = state.image.nodes.size();
    for (Event const& event : m_log)
      most = std::max(most, event.node + 1);
    state.image.nodes.resize(most);
    for (std::size_t i = 0; i < m_cut; ++i)
    {
      state.extents.push_back(choices[i][picks[i]]);
      if (m_log[i].kind == Event::CREATE) // whatever becomes of its name
        state.image.nodes[m_log[i].node].isDirectory = m_log[i].makesDirectory;
      applyPart(state.image, m_log[i], state.extents.back());
    }
    visit(state);
  }

  Image const& m_base;
  std::vector<Event> const& m_log;
  std::size_t m_cut;
  DiskRule m_rule;
};

} // namespace

std::string storyOf(DiskState const& state, std::vector<Event> const& log)
{
  std::string story;
  for (std::size_t i = 0; i < state.cut; ++i)
  {
    static constexpr char const* const NAMES[] = {
        "not on the disk: ",         "",
        "only its size: ",           "only its first block: ",
        "without its first block: ", "under both names: "};
    story += std::string("    ") + NAMES[static_cast<std::size_t>(state.extents[i])] +
             log[i].text() + "\n";
  }
  return story + "    (power lost)\n";
}

bool visitStates(Image const& base, std::vector<Event> const& log, std::size_t cut, DiskRule rule,
                 StateBounds const& bounds, std::function<void(DiskState const&)> const& visit)
{
  return Enumeration(base, log, cut, rule).visit(bounds, visit);
}

} // namespace tqtorture
