// The threads that wait for masters.

#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Web
{

// Jobs of one peer have all threads but one at most, so that others get on as well.
class ReaderPool
{
public:
  static constexpr std::size_t MOST_WAITING = 512;
  static constexpr std::size_t MOST_OF_PEER = 256;

  // left: of the time that the job has from when it was given; 0 or less when that is over, or
  // the pool ends: it should be answered without doing anything then.
  using Job = std::function<void(std::chrono::seconds left)>;

  ReaderPool(unsigned threads, std::chrono::seconds most) : m_most(most), m_count(threads) {}
  ~ReaderPool() { stop(); }
  ReaderPool(ReaderPool const&) = delete;
  ReaderPool& operator=(ReaderPool const&) = delete;

  void start();

  // Each job that was taken is called all the same. Waits for those that run.
  void stop();

  // False when too many wait already.
  bool add(std::string const& peer, Job job);

private:
  using Steady = std::chrono::steady_clock;

  struct Counts
  {
    unsigned waiting = 0;
    unsigned running = 0;
  };

  struct Waiting
  {
    std::string peer;
    Job job;
    Steady::time_point end;
  };

  void run();
  std::deque<Waiting>::iterator nextJob();

  std::chrono::seconds const m_most;
  unsigned const m_count;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Waiting> m_waiting;
  std::map<std::string, Counts> m_peers; // that have any
  bool m_ending = false;
  std::vector<std::thread> m_threads;
};

} // namespace Web
