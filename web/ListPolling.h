// Listing the masters again and again.

#pragma once

#include "web/KeptList.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace Web
{

// A thread for each master, from start to the end of the object.
class ListPolling
{
public:
  struct Pace
  {
    double interval = 5; // seconds between two lists at least
    double share = 0.01; // of a master's time that a list may take
  };

  ListPolling(KeptList& list, Pace pace) : m_list(list), m_pace(pace) {}
  ~ListPolling();
  ListPolling(ListPolling const&) = delete;
  ListPolling& operator=(ListPolling const&) = delete;

  void start();

  // Seconds to wait behind a list that took so many.
  static double pause(Pace const& pace, double seconds);

private:
  void run(std::size_t master);
  double listOnce(std::size_t master, std::string const& name);
  void readService(std::size_t master, Records const& records, std::string const& ownName);

  KeptList& m_list;
  Pace const m_pace;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ending = false;
  std::vector<std::thread> m_threads;
};

} // namespace Web
