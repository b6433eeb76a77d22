// The attributes of an element that has none.

#pragma once

#include "ozf/xml/XmlInterface.h"

namespace tqtest
{

struct NoAttributes : Quillon::Tessarine::Ozf::AttributeList
{
  XMLSize_t getLength() const override { return 0; }
  XMLCh const* getName(XMLSize_t) const override { return nullptr; }
  XMLCh const* getType(XMLSize_t) const override { return nullptr; }
  XMLCh const* getValue(XMLSize_t) const override { return nullptr; }
  XMLCh const* getType(XMLCh const*) const override { return nullptr; }
  XMLCh const* getValue(XMLCh const*) const override { return nullptr; }
  XMLCh const* getValue(char const*) const override { return nullptr; }
};

} // namespace tqtest
