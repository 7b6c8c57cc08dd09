#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the agent and the user-session proxy say to each other: docs/proxy.md. Texts are WTF-8.
namespace proxy_protocol {

constexpr size_t kMaxDocumentBytes = 1 << 20;
constexpr size_t kMaxFields = 256;
/// Of a message's or field's name.
constexpr size_t kMaxNameBytes = 64;

/// The `code` of a reply to a request that was not understood, or failed without a code.
constexpr int32_t kFailed = -1;
/// The field that says why, where a reply's code is not 0.
constexpr const char* kReason = "reason";
/// The name of a reply that belongs to no request: it tells why the connection ends.
constexpr const char* kConnection = "connection";

struct Field {
  /// 1 to `kMaxNameBytes` letters, digits, '.', '-', '_'; so is the message's name.
  std::string name;
  std::string text;
  friend bool operator==(const Field&, const Field&) = default;
};

struct Message {
  enum class Kind { kRequest, kReply };

  Kind kind = Kind::kRequest;
  std::string name;
  /// Chosen by who asks; the reply has the same.
  uint32_t id = 0;
  /// Of replies alone: 0 or what went wrong.
  int32_t code = 0;
  /// In their order; a name may occur more than once.
  std::vector<Field> fields;

  /// The first field of that name; null without one.
  const std::string* Find(std::string_view field) const;
  friend bool operator==(const Message&, const Message&) = default;
};

/// The message as an XML document. Texts that XML cannot carry are written as Base64. The caller
/// minds names and limits: `ParseMessage` refuses what it could not have read.
std::string FormatMessage(const Message& message);

struct ParsedMessage {
  Message message;
  /// Empty, or why the document is no message.
  std::string error;
};

ParsedMessage ParseMessage(std::string_view document);

/// A reply without fields, code 0; one that says why there is no better.
Message ReplyTo(const Message& request);
Message FailureOf(const Message& request, std::string_view reason, int32_t code = kFailed);

}  // namespace proxy_protocol
