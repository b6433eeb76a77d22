// etcd as a floor: a server of its own beside the database, and clients that put
// and list through its HTTP gateway on connections that they keep.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tqbench
{

// A server of one member with its default promises: a put that is answered is on
// the disk.
class EtcdProcess
{
public:
  // Whether the program is there; if not, a line on standard error says which
  // rows are left out, the first time.
  static bool isInstalled();

  // Its files go into the directory, which is made. Waits until it answers.
  explicit EtcdProcess(std::string const& directory);
  ~EtcdProcess();
  EtcdProcess(EtcdProcess const&) = delete;
  EtcdProcess& operator=(EtcdProcess const&) = delete;

  unsigned short port() const noexcept { return m_port; }

private:
  pid_t m_pid = 0;
  unsigned short m_port = 0;
};

// One connection to the gateway. Used by one thread.
class EtcdClient
{
public:
  explicit EtcdClient(unsigned short port);
  ~EtcdClient();
  EtcdClient(EtcdClient const&) = delete;
  EtcdClient& operator=(EtcdClient const&) = delete;

  void put(std::string_view key, std::string_view value);

  // Keys with their values, at most 128, in one transaction.
  void putAll(std::vector<std::pair<std::string, std::string>> const& pairs);

  // How many keys there are in [first, end), with what keys and values have
  // together in bytes: each is taken out of the answer and decoded.
  std::size_t list(std::string_view first, std::string_view end, std::size_t& bytes);

  // Whether the server answers at all.
  static bool answers(unsigned short port);

private:
  std::string const& post(char const* path, std::string const& body);
  void sendAll(std::string const& text) const;
  bool readMore();
  void readUntil(std::size_t size);
  std::size_t readLine(std::size_t from, std::string_view& line);

  int m_fd = -1;
  std::string m_input;
  std::string m_answer;
};

} // namespace tqbench
