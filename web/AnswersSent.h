// Answers on their way to their readers, who may be slow.

#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Web
{

// Bounds what they hold together: a text that several are sent counts once. Any thread.
class AnswersSent
{
public:
  using Text = std::shared_ptr<std::string const>;

  static constexpr std::size_t SMALL = 16384; // are not counted

  // most: bytes, of which those that one address has begun take half.
  explicit AnswersSent(std::size_t most) : m_most(most) {}

  // Holds a text while it is sent.
  class Hold
  {
  public:
    explicit Hold(Text text) : m_text(std::move(text)) {}
    ~Hold()
    {
      if (m_owner != nullptr)
        m_owner->end(*m_text);
    }
    Hold(Hold const&) = delete;
    Hold& operator=(Hold const&) = delete;

    std::string const& text() const { return *m_text; }

  private:
    friend class AnswersSent;

    Text const m_text;
    AnswersSent* m_owner = nullptr; // of one that is counted
  };

  // Null when it would be too much.
  std::unique_ptr<Hold> begin(Text const& text, std::string const& address);

private:
  struct Entry
  {
    std::size_t count = 0;
    std::string address; // of who was first
  };

  void end(std::string const& text);

  std::size_t const m_most;
  std::mutex m_mutex;
  std::size_t m_bytes = 0;
  std::map<std::string const*, Entry> m_texts;
  std::map<std::string, std::size_t> m_bytesOf; // by address
};

} // namespace Web
