#include "agent/proxy_protocol/message.h"

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <optional>
#include <type_traits>

#include "agent/libZel/ascii.h"
#include "libZel/base64.h"
#include "libZel/string.h"

namespace proxy_protocol {

namespace {

constexpr std::string_view kBase64 = "base64";

bool IsName(std::string_view text) {
  return !text.empty() && text.size() <= kMaxNameBytes &&
         std::all_of(text.begin(), text.end(), IsAsciiNameCharacter);
}

// Control characters other than tab and line ends, surrogates (which are no UTF-8) and the two last
// code points of the basic plane have no place in an XML document, escaped or not.
bool IsForXml(std::string_view text) {
  if (!ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size()))) return false;
  const bool hasControl = std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
  });
  return !hasControl && text.find("\xEF\xBF\xBE") == text.npos &&
         text.find("\xEF\xBF\xBF") == text.npos;
}

void AppendEscaped(std::string_view text, std::string* xml) {
  for (const char c : text) {
    switch (c) {
      case '&':
        *xml += "&amp;";
        break;
      case '<':
        *xml += "&lt;";
        break;
      case '>':
        *xml += "&gt;";
        break;
      case '\r':
        *xml += "&#13;";  // a reader makes a line feed of the character itself
        break;
      default:
        xml->push_back(c);
    }
  }
}

void AppendField(const Field& field, std::string* xml) {
  *xml += "<field name=\"" + field.name + "\"";
  if (IsForXml(field.text)) {
    *xml += ">";
    AppendEscaped(field.text, xml);
  } else {
    *xml += " encoding=\"base64\">";
    const auto* const bytes = reinterpret_cast<const unsigned char*>(field.text.data());
    *xml += EncodeBase64(bytes, static_cast<uint32_t>(field.text.size())).Utf8();
  }
  *xml += "</field>\n";
}

std::optional<std::string> Decoded(const std::string& base64) {
  auto length = static_cast<uint32_t>(base64.size());
  char* const bytes = DecodeBase64(reinterpret_cast<const unsigned char*>(base64.data()), &length);
  if (!bytes) return std::nullopt;
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  // Whatever the bytes are: as a text they are WTF-8.
  return std::string(ZelString(std::string_view(bytes, length)).Utf8());
}

template <typename Number>
bool ReadNumber(std::string_view text, Number* number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, *number);
  return error == std::errc() && rest == end;
}

class Reader {
 public:
  Reader() : parser_(XML_ParserCreate("UTF-8"), &XML_ParserFree) {
    if (!parser_) throw std::bad_alloc();
    XML_SetUserData(Parser(), this);
    XML_SetElementHandler(
        Parser(),
        [](void* self, const char* name, const char** attributes) {
          Self(self)->Call([&](Reader& reader) { reader.Begin(name, attributes); });
        },
        [](void* self, const char*) { Self(self)->Call([](Reader& reader) { reader.End(); }); });
    XML_SetCharacterDataHandler(Parser(), [](void* self, const char* text, int size) {
      Self(self)->Call([&](Reader& reader) { reader.Text({text, static_cast<size_t>(size)}); });
    });
    XML_SetStartDoctypeDeclHandler(
        Parser(), [](void* self, const char*, const char*, const char*, int) {
          Self(self)->Call([](Reader& reader) { reader.Refuse("it has a document type"); });
        });
    XML_SetProcessingInstructionHandler(Parser(), [](void* self, const char*, const char*) {
      Self(self)->Call([](Reader& reader) { reader.Refuse("it has a processing instruction"); });
    });
  }

  ParsedMessage Read(std::string_view document) {
    const auto status =
        XML_Parse(Parser(), document.data(), static_cast<int>(document.size()), XML_TRUE);
    if (isOutOfMemory_) throw std::bad_alloc();
    if (error_.empty() && status != XML_STATUS_OK) {
      const char* const why = XML_ErrorString(XML_GetErrorCode(Parser()));
      error_ = std::string("it is no XML: ") + (why ? why : "unknown error");
    }
    if (!error_.empty()) return {{}, "the message is refused: " + error_};
    return {std::move(message_), {}};
  }

 private:
  static Reader* Self(void* self) { return static_cast<Reader*>(self); }
  XML_Parser Parser() const { return parser_.get(); }

  // No exception passes through the parser, which is C.
  template <typename Step>
  void Call(Step step) noexcept {
    if (!error_.empty() || isOutOfMemory_) return;
    try {
      step(*this);
    } catch (const std::exception&) {
      isOutOfMemory_ = true;
      XML_StopParser(Parser(), XML_FALSE);
    }
  }

  void Refuse(const std::string& why) {
    error_ = why;
    XML_StopParser(Parser(), XML_FALSE);
  }

  void Begin(std::string_view name, const char** attributes) {
    ++depth_;
    if (depth_ == 1 && name == "message") return BeginMessage(attributes);
    if (depth_ == 2 && name == "field") return BeginField(attributes);
    Refuse("the element \"" + std::string(name.substr(0, kMaxNameBytes)) +
           "\" does not belong there");
  }

  void BeginMessage(const char** attributes) {
    bool hasKind = false, hasId = false, hasCode = false;
    for (; *attributes; attributes += 2) {
      const std::string_view name = attributes[0];
      const std::string_view value = attributes[1];
      if (name == "kind" && (value == "request" || value == "reply")) {
        message_.kind = value == "reply" ? Message::Kind::kReply : Message::Kind::kRequest;
        hasKind = true;
      } else if (name == "name" && IsName(value)) {
        message_.name = value;
      } else if (name == "id" && ReadNumber(value, &message_.id)) {
        hasId = true;
      } else if (name == "code" && ReadNumber(value, &message_.code)) {
        hasCode = true;
      } else {
        return RefuseAttribute(name);
      }
    }
    if (!hasKind || !hasId || message_.name.empty()) return Refuse("it lacks kind, name or id");
    const bool isReply = message_.kind == Message::Kind::kReply;
    if (hasCode != isReply) Refuse(isReply ? "the reply lacks a code" : "the request has a code");
  }

  void BeginField(const char** attributes) {
    if (message_.fields.size() == kMaxFields) return Refuse("it has too many fields");
    Field field;
    isBase64_ = false;
    for (; *attributes; attributes += 2) {
      const std::string_view name = attributes[0];
      const std::string_view value = attributes[1];
      if (name == "name" && IsName(value)) {
        field.name = value;
      } else if (name == "encoding" && value == kBase64) {
        isBase64_ = true;
      } else {
        return RefuseAttribute(name);
      }
    }
    if (field.name.empty()) return Refuse("a field lacks its name");
    message_.fields.push_back(std::move(field));
  }

  void RefuseAttribute(std::string_view name) {
    Refuse("the attribute \"" + std::string(name.substr(0, kMaxNameBytes)) +
           "\" is unknown or has an unusable value");
  }

  void Text(std::string_view text) {
    if (depth_ == 2) {
      message_.fields.back().text += text;
    } else if (text.find_first_not_of(" \t\r\n") != text.npos) {
      Refuse("it has text outside its fields");
    }
  }

  void End() {
    const bool isField = depth_-- == 2;
    if (!isField || !isBase64_) return;
    std::string& text = message_.fields.back().text;
    const std::optional<std::string> decoded = Decoded(text);
    if (!decoded) return Refuse("a field's text is no Base64");
    text = *decoded;
  }

  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser_;
  Message message_;
  int depth_ = 0;
  bool isBase64_ = false;
  bool isOutOfMemory_ = false;
  std::string error_;
};

}  // namespace

const std::string* Message::Find(std::string_view field) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const Field& one) { return one.name == field; });
  return found == fields.end() ? nullptr : &found->text;
}

std::string FormatMessage(const Message& message) {
  const bool isReply = message.kind == Message::Kind::kReply;
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<message kind=\"";
  xml += isReply ? "reply" : "request";
  xml += "\" name=\"" + message.name + "\" id=\"" + std::to_string(message.id) + "\"";
  if (isReply) xml += " code=\"" + std::to_string(message.code) + "\"";
  xml += ">\n";
  for (const Field& field : message.fields) AppendField(field, &xml);
  xml += "</message>\n";
  return xml;
}

ParsedMessage ParseMessage(std::string_view document) {
  if (document.size() > kMaxDocumentBytes) return {{}, "the message is refused: it is too long"};
  return Reader().Read(document);
}

Message ReplyTo(const Message& request) {
  return {Message::Kind::kReply, request.name, request.id, 0, {}};
}

Message FailureOf(const Message& request, std::string_view reason, int32_t code) {
  Message reply = ReplyTo(request);
  reply.code = code;
  reply.fields.push_back({kReason, std::string(reason)});
  return reply;
}

}  // namespace proxy_protocol
