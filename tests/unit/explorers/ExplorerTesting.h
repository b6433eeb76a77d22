// What the tests of the explorers share: the recorded trees, and a reader of
// the documents that explorers write.

#pragma once

#include "ozf/xml/XmlDocumentInterface.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace ExplorerTesting
{

inline std::string fixture(std::string const& name)
{
  return std::string(TQ_SOURCE_DIR) + "/tests/unit/explorers/fixtures/" + name;
}

struct Item
{
  std::string name;
  std::string explorer;
  std::map<std::string, std::string> facts;
};

// Takes any document apart by its structure alone.
class Document : public Quillon::Tessarine::Ozf::XmlDocumentInterface
{
public:
  explicit Document(std::string const& text) { wellFormed = parseBuffer(text); }

  bool wellFormed = false;
  std::string root;
  std::vector<Item> items;                                       // of DISCOVERED elements
  std::vector<std::map<std::string, std::string>> attributeList; // of Attribute elements
  std::vector<std::string> tags;                                 // of everything, in order

  Item const* find(std::string const& name) const
  {
    auto const found = std::find_if(items.begin(), items.end(),
                                    [&](Item const& item) { return item.name == name; });
    return found == items.end() ? nullptr : &*found;
  }

  int xmlStartElement(Quillon::Tessarine::Ozf::XmlObjParseContext* context, XMLCh const* name,
                      Quillon::Tessarine::Ozf::AttributeList& attributes) override
  {
    std::string const tag = narrow(name);
    tags.push_back(tag);
    if (root.empty())
      root = tag;
    if (tag == "DISCOVERED")
      items.push_back({attribute(attributes, "Name").value_or("").str(), "", {}});
    if (tag == "ExplorerData")
      items.back().explorer = attribute(attributes, "Name").value_or("").str();
    if (tag == "Attribute")
    {
      attributeList.emplace_back();
      for (XMLSize_t at = 0; at < attributes.getLength(); ++at)
        attributeList.back()[narrow(attributes.getName(at))] = narrow(attributes.getValue(at));
    }
    context->clearText();
    return 1;
  }

  int xmlEndElement(Quillon::Tessarine::Ozf::XmlObjParseContext* context,
                    XMLCh const* name) override
  {
    std::string const tag = narrow(name);
    if (!items.empty() && tag != "ExplorerData" && tag != "DISCOVERED" && tag != root)
      items.back().facts[tag] = context->text().str();
    context->clearText();
    return XmlDocumentInterface::xmlEndElement(context, name);
  }

private:
  static std::string narrow(XMLCh const* text)
  {
    return Quillon::Tessarine::Ozf::OzfString(std::u16string_view(text)).str();
  }
};

} // namespace ExplorerTesting
