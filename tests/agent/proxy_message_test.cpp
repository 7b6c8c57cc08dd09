#include "agent/proxy_protocol/message.h"

#include <gmock/gmock.h>

#include "agent/proxy_protocol/frame.h"

using namespace proxy_protocol;
using testing::HasSubstr;

namespace {

Message Request(const std::string& text) {
  return {Message::Kind::kRequest, "run", 7, 0, {{"commandLine", text}}};
}

std::string ErrorIn(const std::string& document) {
  return ParseMessage(document).error;
}

std::string InMessage(const std::string& content) {
  return "<message kind=\"request\" name=\"run\" id=\"7\">" + content + "</message>";
}

}  // namespace

TEST(ProxyMessage, IsAPlainDocument) {
  EXPECT_EQ(FormatMessage(Request("a & b")),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<message kind=\"request\" name=\"run\" id=\"7\">\n"
            "<field name=\"commandLine\">a &amp; b</field>\n"
            "</message>\n");
  EXPECT_EQ(FormatMessage(FailureOf(Request(""), "no", 2)),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<message kind=\"reply\" name=\"run\" id=\"7\" code=\"2\">\n"
            "<field name=\"reason\">no</field>\n"
            "</message>\n");
}

TEST(ProxyMessage, CarriesEveryText) {
  using namespace std::string_literals;
  for (const std::string& text :
       {""s, " blanks \t and\nlines\r\n\r"s, "<a href=\"x\">&amp;]]></a>"s,
        "na\xC3\xAFve \xF0\x9F\x98\x80"s, "\0 \x01 \x1F \x7F"s, "lone \xED\xA0\x80 surrogate"s,
        "\xEF\xBF\xBE \xEF\xBF\xBF"s, "\xC2\x85 \xE2\x80\xA8"s}) {
    const ParsedMessage parsed = ParseMessage(FormatMessage(Request(text)));
    EXPECT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.message, Request(text)) << testing::PrintToString(text);
  }
}

TEST(ProxyMessage, WritesAsBase64WhatXmlCannotCarry) {
  EXPECT_THAT(FormatMessage(Request(std::string("\x01", 1))),
              HasSubstr("<field name=\"commandLine\" encoding=\"base64\">AQ==</field>"));
}

TEST(ProxyMessage, KeepsTheOrderOfItsFields) {
  Message message = Request("1");
  message.fields.push_back({"b", "2"});
  message.fields.push_back({"a", "3"});
  message.fields.push_back({"b", "4"});
  const ParsedMessage parsed = ParseMessage(FormatMessage(message));
  EXPECT_EQ(parsed.message, message);
  ASSERT_NE(parsed.message.Find("b"), nullptr);
  EXPECT_EQ(*parsed.message.Find("b"), "2") << "the first one";
  EXPECT_EQ(parsed.message.Find("c"), nullptr);
}

TEST(ProxyMessage, CarriesNegativeCodes) {
  const Message reply = FailureOf(Request(""), "why");
  EXPECT_EQ(ParseMessage(FormatMessage(reply)).message, reply);
}

TEST(ProxyMessage, RefusesADocumentType) {
  EXPECT_THAT(ErrorIn("<!DOCTYPE message>" + InMessage("")), HasSubstr("document type"));
  EXPECT_THAT(
      ErrorIn("<!DOCTYPE m [<!ENTITY a \"b\">]>" + InMessage("<field name=\"x\">&a;</field>")),
      HasSubstr("document type"));
  EXPECT_THAT(ErrorIn("<!DOCTYPE m SYSTEM \"file:///etc/passwd\">" + InMessage("")),
              HasSubstr("document type"));
}

TEST(ProxyMessage, RefusesWhatItDoesNotKnow) {
  EXPECT_THAT(ErrorIn("<other/>"), HasSubstr("\"other\" does not belong"));
  EXPECT_THAT(ErrorIn(InMessage("<other/>")), HasSubstr("\"other\" does not belong"));
  EXPECT_THAT(ErrorIn(InMessage("<message/>")), HasSubstr("\"message\" does not belong"));
  EXPECT_THAT(ErrorIn(InMessage("<field name=\"x\"><field name=\"y\"/></field>")),
              HasSubstr("\"field\" does not belong"));
  EXPECT_THAT(ErrorIn(InMessage("text")), HasSubstr("text outside"));
  EXPECT_THAT(ErrorIn(InMessage("<?do it?>")), HasSubstr("processing instruction"));
  EXPECT_THAT(ErrorIn(InMessage("<field name=\"x\" more=\"y\"/>")), HasSubstr("\"more\""));
  EXPECT_THAT(ErrorIn(InMessage("<field name=\"x\" encoding=\"hex\"/>")),
              HasSubstr("\"encoding\""));
  EXPECT_THAT(ErrorIn(InMessage("<field name=\"x\" encoding=\"base64\">!</field>")),
              HasSubstr("Base64"));
}

TEST(ProxyMessage, RefusesAnIncompleteHead) {
  EXPECT_NE(ErrorIn("<message/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" name=\"run\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" id=\"1\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"order\" name=\"run\" id=\"1\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" name=\"r n\" id=\"1\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" name=\"run\" id=\"-1\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" name=\"run\" id=\"4294967296\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"request\" name=\"run\" id=\"1\" code=\"0\"/>"), "");
  EXPECT_NE(ErrorIn("<message kind=\"reply\" name=\"run\" id=\"1\"/>"), "");
  EXPECT_NE(ErrorIn(InMessage("<field>x</field>")), "");
  EXPECT_EQ(ErrorIn(InMessage("")), "");
}

TEST(ProxyMessage, RefusesWhatIsNoXml) {
  for (const char* document :
       {"", " ", "<message", "hello", "<message kind=\"request\" name=\"r\" id=\"1\">", "\xFF\xFE",
        "{\"kind\": 1}"}) {
    EXPECT_THAT(ErrorIn(document), HasSubstr("refused")) << document;
  }
  EXPECT_NE(ErrorIn(InMessage("") + InMessage("")), "");
  EXPECT_NE(ErrorIn(InMessage("<field name=\"x\">\xC3(</field>")), "") << "no UTF-8";
}

TEST(ProxyMessage, RefusesTooMuch) {
  std::string fields;
  for (size_t i = 0; i < kMaxFields; ++i) fields += "<field name=\"x\"/>";
  EXPECT_EQ(ErrorIn(InMessage(fields)), "");
  EXPECT_THAT(ErrorIn(InMessage(fields + "<field name=\"x\"/>")), HasSubstr("too many fields"));
  EXPECT_THAT(ErrorIn(InMessage(std::string(kMaxDocumentBytes, ' '))), HasSubstr("too long"));
  EXPECT_EQ(ErrorIn(InMessage("<field name=\"" + std::string(kMaxNameBytes, 'x') + "\"/>")), "");
  EXPECT_NE(ErrorIn(InMessage("<field name=\"" + std::string(kMaxNameBytes + 1, 'x') + "\"/>")),
            "");
}

TEST(ProxyFrame, TellsTheLengthHighestByteFirst) {
  EXPECT_EQ(FrameOf("abc"), std::string("\0\0\0\3abc", 7));
  EXPECT_EQ(FrameOf(std::string(0x10203, 'x')).substr(0, 4), std::string("\0\1\2\3", 4));
}

TEST(ProxyFrame, HasALengthWithinTheLimits) {
  EXPECT_EQ(DocumentLength({0, 1, 2, 3}), 0x10203u);
  EXPECT_EQ(DocumentLength({0, 0x10, 0, 0}), kMaxDocumentBytes);
  EXPECT_EQ(DocumentLength({0, 0x10, 0, 1}), std::nullopt);
  EXPECT_EQ(DocumentLength({0, 0, 0, 0}), std::nullopt);
  EXPECT_EQ(DocumentLength({0xFF, 0xFF, 0xFF, 0xFF}), std::nullopt);
}
