#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "agent/zelctl/editor.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/remote_text.h"
#include "agent/zelctl/text_commands.h"

namespace {

/// The local file that the editor works on. It stays unless it is removed: it may hold work of the
/// user.
class WorkFile {
 public:
  WorkFile(const std::string& extension, const std::string& text)
      : file_(CreatePrivateFile(extension)), original_(text) {
    WriteLocalFile(file_, text);
  }

  const std::filesystem::path& Path() const { return file_; }
  /// Throws `Failure` when it holds no UTF-8.
  std::string Text() const { return RequireUtf8(ReadLocalFile(file_), "the edited text"); }

  void Remove() const {
    std::error_code ignored;
    std::filesystem::remove(file_, ignored);
  }
  /// Ends an edit that went wrong: removes a text that is the original, and else tells where it is.
  [[noreturn]] void Abandon(const Failure& failure) const {
    if (HoldsOriginal()) {
      Remove();
      throw failure;
    }
    throw Failure(failure.Status(),
                  std::string(failure.what()) + "; the edited text is kept in " + PathText(file_),
                  failure.Reply());
  }

 private:
  bool HoldsOriginal() const {
    try {
      return ReadLocalFile(file_) == original_;
    } catch (const Failure&) {
      return false;
    }
  }

  std::filesystem::path file_;
  std::string original_;
};

/// The extension of the remote name, by which editors know the syntax: only where it is a plain
/// one, for the name comes from another machine.
std::string ExtensionOf(const std::string& path) {
  constexpr size_t kLongest = 16;
  const std::string name = path.substr(path.find_last_of("/\\:") + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || name.size() - dot > kLongest) return {};
  const std::string extension = name.substr(dot);
  const size_t odd = extension.find_first_not_of(
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+-", 1);
  return odd == std::string::npos && extension.size() > 1 ? extension : "";
}

void Edit(const std::filesystem::path& file) {
  const std::string command = EditorCommand();
  int status = 0;
  try {
    status = RunEditor(command, file);
  } catch (const std::exception& error) {
    throw Failure(ExitStatus::kUsage, std::string("the editor cannot be started: ") + error.what());
  }
  if (status == 0) return;
  throw Failure(ExitStatus::kUsage, "the editor '" + command + "' ended with status " +
                                        std::to_string(status) + "; nothing was written");
}

std::string TextOf(const std::optional<RemoteText>& remote) {
  return remote ? remote->text : "";
}

void RequireSame(const std::optional<RemoteText>& before, const std::optional<RemoteText>& now,
                 const std::string& path) {
  if (before.has_value() == now.has_value() && TextOf(before) == TextOf(now)) return;
  throw Failure(ExitStatus::kActionFailed,
                path + ": was changed by someone else meanwhile; nothing was written",
                now ? now->body : "");
}

/// Writes what the editor left, if that is something new.
Result WriteEdited(AgentClient& agent, const std::string& path,
                   const std::optional<RemoteText>& before, const std::string& edited) {
  if (edited == TextOf(before)) return {"not changed\n", before ? before->body : "", ""};
  RequireSame(before, ReadRemoteTextIfAny(agent, path), path);
  return {"", WriteRemoteText(agent, path, edited).body, ""};
}

}  // namespace

Result EditText(AgentClient& agent, const std::string& path) {
  const std::optional<RemoteText> before = ReadRemoteTextIfAny(agent, path);
  const WorkFile work(ExtensionOf(path), TextOf(before));
  try {
    Edit(work.Path());
    Result result = WriteEdited(agent, path, before, work.Text());
    work.Remove();
    return result;
  } catch (const Failure& failure) {
    work.Abandon(failure);
  }
}
