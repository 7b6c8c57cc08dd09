// What the agent asks the proxy to show: of any request the dialog has a title, labels and a way
// out, and its texts are no longer than they may be. The input is the request's document, or the
// text of its fields.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/proxy/dialog_fields.h"
#include "tests/fuzz/require.h"

using proxy_protocol::Message;

namespace {

const DialogWords kWords{"Yes", "No", "Close", "Message"};

// Four bytes to a character, and the ellipsis.
void RequireShort(const std::string& text, size_t characters) {
  Require(text.size() <= characters * 4 + 3);
}

void Check(const Message& request) {
  try {
    const DialogContent dialog = DialogOf(request, kWords);
    Require(!dialog.title.empty() && dialog.buttons.size() <= 2);
    RequireShort(dialog.title, kMaxLineCharacters);
    RequireShort(dialog.text, kMaxTextCharacters);
    for (const DialogButton& button : dialog.buttons) {
      Require(button.id != 0 && !button.label.empty());
      RequireShort(button.label, kMaxLineCharacters);
    }
    Require((dialog.closeButton == 0) == dialog.buttons.empty());
    Require(dialog.imagePath.find('\0') == std::string::npos);
  } catch (const std::runtime_error& error) {
    Require(std::string_view(error.what()).starts_with("the field "));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Check(proxy_protocol::ParseMessage(text).message);

  Message request{Message::Kind::kRequest, "dialog-create", 1, 0, {}};
  for (const char* field :
       {"title", "text", "imagePath", "firstButton", "secondButton", "closeButton"})
    request.fields.push_back({field, text});
  for (const char* count : {"0", "1", "2"}) {
    Message one = request;
    one.fields.push_back({"buttons", count});
    Check(one);
  }
  for (const char* field : {"buttons", "timeoutS", "topMost"}) {
    Message one = request;
    one.fields.push_back({field, text});
    one.fields.push_back({"buttons", "1"});
    Check(one);
  }
  return 0;
}
