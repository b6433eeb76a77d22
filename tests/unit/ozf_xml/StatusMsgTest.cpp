#include "ozf/xml/StatusMsg.h"

#include "ozf/sync/AutoDereference.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string written(StatusMsg const& message, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  std::ostringstream os;
  EXPECT_EQ(&os, &message.writeXml(os, encoding));
  return os.str();
}

// Reads every STATUSMSG and StatusMsg below its root, as the owners of
// messages do.
class MessageDocument : public XmlDocumentInterface
{
public:
  std::vector<AutoDereference<StatusMsg>> messages;

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    if (m_context != nullptr)
      return m_message->xmlStartElement(m_context.get(), name, attributes);
    if (XmlObjParseContext::cmptag(name, "STATUSMSG") ||
        XmlObjParseContext::cmptag(name, "StatusMsg"))
    {
      StatusMsg* message = nullptr;
      m_context.reset(xmlCreateObject(name, attributes, context, message));
      m_message.reset(message);
    }
    return 1;
  }

  int xmlCharacters(XmlObjParseContext*, XMLCh const* chars, unsigned long length) override
  {
    return m_context == nullptr ? 1 : m_message->xmlCharacters(m_context.get(), chars, length);
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    if (m_context == nullptr)
      return XmlDocumentInterface::xmlEndElement(context, name);
    if (m_message->xmlEndElement(m_context.get(), name) == 0)
    {
      messages.push_back(std::move(m_message));
      m_context.reset();
    }
    return 1;
  }

private:
  std::unique_ptr<XmlObjParseContext> m_context;
  AutoDereference<StatusMsg> m_message;
};

} // namespace

TEST(StatusMsg, IsWrittenWithCodeSeverityAndEscapedText)
{
  AutoDereference<StatusMsg> const message(new StatusMsg(13, StatusMsg::ERROR, "a<b\xC3\xA4"));
  EXPECT_EQ("<STATUSMSG Code=\"13\" Severity=\"2\">a&lt;b\xC3\xA4</STATUSMSG>", written(*message));
  EXPECT_EQ("<STATUSMSG Code=\"13\" Severity=\"2\">a&lt;b&#xE4;</STATUSMSG>",
            written(*message, XmlStr::US_ASCII));
}

TEST(StatusMsg, NumbersAreDecimalWhateverTheStreamIsSetTo)
{
  AutoDereference<StatusMsg> const message(new StatusMsg(255, StatusMsg::WARNING, ""));
  std::ostringstream os;
  os << std::hex << std::showbase;
  message->writeXml(os, XmlStr::UTF_8);
  EXPECT_EQ("<STATUSMSG Code=\"255\" Severity=\"1\"></STATUSMSG>", os.str());
}

TEST(StatusMsg, AnUnknownEncodingFailsTheStream)
{
  AutoDereference<StatusMsg> const message(new StatusMsg(1, StatusMsg::WARNING, "x"));
  std::ostringstream os;
  message->writeXml(os, static_cast<XmlStr::Encoding>(9));
  EXPECT_TRUE(os.fail());
}

TEST(StatusMsg, ReadsBackWhatItWrote)
{
  AutoDereference<StatusMsg> const message(
      new StatusMsg(4294967295U, StatusMsg::WARNING, " a & b\r\n<c> "));
  MessageDocument document;
  ASSERT_TRUE(document.parseBuffer("<r>" + written(*message) + "</r>")) << document.lastError();
  ASSERT_EQ(1U, document.messages.size());
  StatusMsg const& read = *document.messages[0];
  EXPECT_EQ(4294967295U, read.code());
  EXPECT_EQ(StatusMsg::WARNING, read.severity());
  EXPECT_EQ(OzfString(" a & b\r\n<c> "), read.text());
  EXPECT_EQ(1, read.referenceCount());
}

TEST(StatusMsg, KeepsTheNameOfTheElementItWasReadFrom)
{
  MessageDocument document;
  ASSERT_TRUE(document.parseBuffer("<r><StatusMsg Severity='2' Code='7'>x</StatusMsg></r>"));
  ASSERT_EQ(1U, document.messages.size());
  EXPECT_EQ("<StatusMsg Code=\"7\" Severity=\"2\">x</StatusMsg>", written(*document.messages[0]));
}

TEST(StatusMsg, AttributesThatAreMissingOrNotNumbersAreZero)
{
  MessageDocument document;
  ASSERT_TRUE(document.parseBuffer("<r><STATUSMSG/><STATUSMSG Code='x' Severity=''/>"
                                   "<STATUSMSG Code='-1' Severity='4294967296'/></r>"));
  ASSERT_EQ(3U, document.messages.size());
  for (auto const& message : document.messages)
  {
    EXPECT_EQ(0U, message->code());
    EXPECT_EQ(StatusMsg::INFORMATION, message->severity());
    EXPECT_EQ(OzfString(), message->text());
  }
}

TEST(StatusMsg, AnElementOfTheSameNameInsideDoesNotEndIt)
{
  MessageDocument document;
  ASSERT_TRUE(document.parseBuffer(
      "<r><STATUSMSG Code='1'>a<STATUSMSG Code='2'>b</STATUSMSG>c</STATUSMSG></r>"));
  ASSERT_EQ(1U, document.messages.size());
  EXPECT_EQ(1U, document.messages[0]->code());
  EXPECT_EQ(OzfString("abc"), document.messages[0]->text());
}
