// Text files that are read as a whole, and changed line by line.

#include "agent/libZel/text_file.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "agent/libZel/boundary.h"
#include "agent/libZel/edit_failures.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/file_system.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/text_lines.h"
#include "libZel/file.h"

namespace {

using file_system::Kind;
using Change = std::function<bool(TextLines*)>;

constexpr uint32_t kReadBytes = 256 * 1024;

Outcome TooLarge(size_t maxBytes) {
  ZelString reason;
  reason.Printf("the limit of %u bytes is exceeded", maxBytes);
  return FailedBecause(reason);
}

Outcome HasChanged() {
  return FailedBecause("another program has changed the file meanwhile");
}

// Gives the file at `path`, whose content is `old`, another content: wholly, or not at all.
Outcome Replace(const std::filesystem::path& path, const std::string& old,
                const std::string& content) {
  file_system::PendingFile file;
  int error = file.Create(path);
  if (error == 0) error = file.WriteInPlaceOf(path, content.data(), content.size());
  if (error != 0) return OutcomeOf(error);

  std::string now;
  const Outcome outcome = ReadTextFile(path, &now);
  if (!outcome) return outcome;
  return now == old ? OutcomeOf(file.Commit(true)) : HasChanged();
}

// An edit of one line of a file, of which `known` (if not null) is what the caller has seen.
class LineEdit {
 public:
  LineEdit(const ZelString& path, unsigned long line, std::shared_ptr<const TextLines>* known)
      : path_(path),
        native_(ToNativeFile(path)),
        line_(line),
        known_(*known),
        basis_(*known),
        result_(known) {}

  bool Run(const Change& change) {
    const bool done = Guarded("edit of a file's line", false, [&] {
      const Outcome outcome = Apply(change);
      if (!outcome) {
        LibraryLog().WarningWithNL("edit of line %u of %S failed: %S", line_, path_,
                                   outcome.reason);
      }
      return static_cast<bool>(outcome);
    });
    if (!done && basis_) edit_failures::Add(native_.path, basis_->Stamp(), line_);
    return done;
  }

 private:
  Outcome Apply(const Change& change) {
    if (!native_) return InvalidName(native_);
    std::filesystem::path target = native_.path;
    Outcome outcome = FollowLinks(&target);
    if (!outcome) return outcome;

    std::string bytes;
    outcome = ReadTextFile(target, &bytes);
    if (!outcome) return outcome;
    const auto current = std::make_shared<const TextLines>(std::move(bytes));
    if (known_ && known_->Line(line_) != current->Line(line_)) {
      basis_ = nullptr;  // nothing is known to be unchangeable in the file as it is now
      return HasChanged();
    }
    basis_ = current;
    if (file_system::IsReadOnly(target)) return FailedBecause("the file is read-only");
    return Write(target, *current, change);
  }

  Outcome Write(const std::filesystem::path& target, const TextLines& old, const Change& change) {
    TextLines edited = old;
    if (!change(&edited)) return FailedBecause("there is no such line");
    if (edited.Bytes().size() > kMaxTextFileBytes) return TooLarge(kMaxTextFileBytes);
    // What others have changed elsewhere in the file stays unknown to the caller.
    std::shared_ptr<TextLines> known = known_ ? std::make_shared<TextLines>(*known_) : nullptr;
    if (known && !change(known.get())) return HasChanged();

    const Outcome outcome = Replace(target, old.Bytes(), edited.Bytes());
    if (outcome) *result_ = std::move(known);
    return outcome;
  }

  const ZelString& path_;
  const NativePath native_;
  const unsigned long line_;
  const std::shared_ptr<const TextLines> known_;
  // The content that a failure is about.
  std::shared_ptr<const TextLines> basis_;
  std::shared_ptr<const TextLines>* const result_;
};

std::mutex& EditMutex() {
  // Never destroyed: threads may outlive the library's statics.
  static auto* const mutex = new std::mutex;
  return *mutex;
}

// `hasFailed` stays set when anything goes wrong.
int Edit(const ZelString& path, unsigned long line, std::shared_ptr<const TextLines>* known,
         bool* hasFailed, const Change& change) {
  if (std::exchange(*hasFailed, true)) return 0;
  const bool done = Guarded("edit of a file's line", false, [&] {
    // An edit reads and writes: two at once would lose one.
    const std::lock_guard lock(EditMutex());
    return LineEdit(path, line, known).Run(change);
  });
  *hasFailed = !done;
  return done ? 1 : 0;
}

}  // namespace

Outcome ReadTextFile(const std::filesystem::path& path, std::string* bytes, size_t maxBytes) {
  const file_system::Status status = file_system::Look(path);
  Outcome outcome = CheckSource(status);
  if (!outcome) return outcome;
  file_system::OpenFile file;
  outcome = OutcomeOf(file.Open(path));
  if (!outcome) return outcome;

  bytes->clear();
  bytes->reserve(std::min<uint64_t>(status.sizeBytes, maxBytes));
  const auto buffer = std::make_unique<char[]>(kReadBytes);
  for (;;) {
    uint32_t count = 0;
    outcome = OutcomeOf(file.Read(buffer.get(), kReadBytes, &count));
    if (!outcome || count == 0) return outcome;
    if (bytes->size() + count > maxBytes) return TooLarge(maxBytes);
    bytes->append(buffer.get(), count);
  }
}

Outcome FollowLinks(std::filesystem::path* path) {
  if (!file_system::LookAtEntry(*path).isLink) return {};
  std::error_code error;
  *path = std::filesystem::canonical(*path, error);
  if (error) return OutcomeOf(error.value());
  if (!file_system::LookAtEntry(*path).isLink) return {};
  return FailedBecause("it is a link that cannot be followed");
}

int File::InsertLine(unsigned long line, const ZelString& text) {
  return Edit(path_, line, &lines_, &editFailed_,
              [&](TextLines* lines) { return lines->Insert(line, text); });
}

int File::DeleteLine(unsigned long line) {
  return Edit(path_, line, &lines_, &editFailed_,
              [&](TextLines* lines) { return lines->Delete(line); });
}
