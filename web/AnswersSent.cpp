#include "web/AnswersSent.h"

namespace Web
{

std::unique_ptr<AnswersSent::Hold> AnswersSent::begin(Text const& text, std::string const& address)
{
  auto hold = std::make_unique<Hold>(text);
  std::size_t const size = text->size();
  if (size < SMALL)
    return hold;
  std::lock_guard const guard(m_mutex);
  auto known = m_texts.find(text.get());
  if (known == m_texts.end())
  {
    std::size_t& ofAddress = m_bytesOf[address];
    // One alone is never too much.
    if (m_bytes != 0 && (m_bytes + size > m_most || ofAddress + size > m_most / 2))
    {
      if (ofAddress == 0)
        m_bytesOf.erase(address);
      return nullptr;
    }
    known = m_texts.emplace(text.get(), Entry{0, address}).first;
    m_bytes += size;
    ofAddress += size;
  }
  ++known->second.count;
  hold->m_owner = this;
  return hold;
}

void AnswersSent::end(std::string const& text)
{
  std::lock_guard const guard(m_mutex);
  auto const known = m_texts.find(&text);
  if (--known->second.count != 0)
    return;
  m_bytes -= text.size();
  auto const ofAddress = m_bytesOf.find(known->second.address);
  ofAddress->second -= text.size();
  if (ofAddress->second == 0)
    m_bytesOf.erase(ofAddress);
  m_texts.erase(known);
}

} // namespace Web
