// Watches the system calls that change, lock or read files below a directory,
// and lets a test answer them in the system's place.

#pragma once

#include <functional>
#include <string>
#include <vector>

// Only calls of the thread that made it are seen. SystemCalls.cpp defines the
// functions of the C library that it stands for; the dynamic linker prefers
// those of the program to the library's own.
class SystemCalls
{
public:
  // A call's text: "pwrite 2 a b.xml", "rename 0.updating", "fsync ." for the
  // directory itself, "fcntl setlk write Update.lock" (setlk or setlkw; read,
  // write or unlock), "pread 2 a b.xml", "read 2 a b.dat", "fstat 2 a b.xml", "fstatfs .",
  // "open 2 a b.xml", "access 2 a b.dat", "opendir .", "readdir .". The result is 0 to let the call
  // through, or the error number that it shall fail with. It may also end the
  // process.
  using Answer = std::function<int(std::string const& call)>;

  // Whether the call changes a file: it neither opens, locks nor reads.
  static bool changes(std::string const& call);

  explicit SystemCalls(std::string directory, Answer answer = {});
  ~SystemCalls();
  SystemCalls(SystemCalls const&) = delete;
  SystemCalls& operator=(SystemCalls const&) = delete;

  std::vector<std::string> const& seen() const { return m_seen; }

  // For the functions that stand in: whether the call is answered instead,
  // with errno set.
  static bool fails(std::string const& function, int fd);
  static bool fails(std::string const& function, char const* path);

private:
  bool answers(std::string const& function, std::string const& path);

  std::string const m_directory;
  Answer const m_answer;
  std::vector<std::string> m_seen;
};
