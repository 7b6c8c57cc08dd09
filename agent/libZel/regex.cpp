// No log here: these functions are linked where there is none.

#include "libZel/regex.h"

#include <pcre2.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "agent/libZel/per_thread.h"

namespace {

constexpr size_t kMaxPatternBytes = 64 * 1024;
constexpr size_t kMaxResultBytes = size_t{256} << 20;
constexpr uint32_t kHeapLimitKiB = 64 * 1024;
constexpr size_t kJitStackBytes = 32 * 1024;
constexpr size_t kMaxJitStackBytes = size_t{32} << 20;

// What one call may cost, in steps of about a nanosecond: one for each byte passed and some for
// each item of the pattern that is tried.
constexpr uint64_t kMaxWork = uint64_t{1} << 30;
constexpr uint64_t kItemWork = 16;

// Bytes without regard to UTF-8, whatever a pattern says at its start. PCRE2's own limits count for
// each place where a match could begin, and not the bytes that a single item passes; a callout in
// front of each item sees all of that.
constexpr uint32_t kOptions = PCRE2_AUTO_CALLOUT | PCRE2_NEVER_UTF | PCRE2_NEVER_UCP;

template <auto Free>
struct Freed {
  template <typename Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using CompileContext = std::unique_ptr<pcre2_compile_context, Freed<pcre2_compile_context_free>>;
using MatchContext = std::unique_ptr<pcre2_match_context, Freed<pcre2_match_context_free>>;
using Code = std::unique_ptr<pcre2_code, Freed<pcre2_code_free>>;
using MatchData = std::unique_ptr<pcre2_match_data, Freed<pcre2_match_data_free>>;
using JitStack = std::unique_ptr<pcre2_jit_stack, Freed<pcre2_jit_stack_free>>;

template <typename Owner>
Owner NotNull(Owner owner) {
  if (!owner) throw std::bad_alloc();
  return owner;
}

PCRE2_SPTR Bytes(std::string_view text) {
  return reinterpret_cast<PCRE2_SPTR>(text.data());
}

// A pattern, compiled. Immutable.
struct Pattern {
  std::string text;
  uint32_t options = 0;
  Code code;  // null when the pattern is malformed
  uint32_t groups = 0;
  bool hasBackReferences = false;
};

std::shared_ptr<const Pattern> Compile(std::string_view text, uint32_t options) {
  const CompileContext context = NotNull(CompileContext(pcre2_compile_context_create(nullptr)));
  // "." stops at either line end, as do "^" and "$".
  pcre2_set_newline(context.get(), PCRE2_NEWLINE_ANYCRLF);
  pcre2_set_max_pattern_length(context.get(), kMaxPatternBytes);

  auto pattern = std::make_shared<Pattern>();
  pattern->text = text;
  pattern->options = options;
  int error = 0;
  size_t errorOffset = 0;
  pattern->code.reset(pcre2_compile(Bytes(text), text.size(), kOptions | options, &error,
                                    &errorOffset, context.get()));
  if (!pattern->code) return pattern;
  // Where the system allows no code to be made, patterns are interpreted.
  pcre2_jit_compile(pattern->code.get(), PCRE2_JIT_COMPLETE);
  pcre2_pattern_info(pattern->code.get(), PCRE2_INFO_CAPTURECOUNT, &pattern->groups);
  uint32_t highestReference = 0;
  pcre2_pattern_info(pattern->code.get(), PCRE2_INFO_BACKREFMAX, &highestReference);
  pattern->hasBackReferences = highestReference > 0;
  return pattern;
}

// The pattern that the thread used last is at hand: lists are matched entry by entry.
std::shared_ptr<const Pattern> Compiled(std::string_view text, uint32_t options) {
  static PerThread<std::shared_ptr<const Pattern>> perThread;
  std::shared_ptr<const Pattern>& last = perThread.Get();
  if (!last || last->text != text || last->options != options) last = Compile(text, options);
  return last;
}

// The searches of one call in one text.
class Search {
 public:
  Search(std::shared_ptr<const Pattern> pattern, std::string_view text)
      : pattern_(std::move(pattern)), text_(text) {
    if (!pattern_->code) return;
    context_ = NotNull(MatchContext(pcre2_match_context_create(nullptr)));
    data_ = NotNull(MatchData(pcre2_match_data_create_from_pattern(pattern_->code.get(), nullptr)));
    pcre2_set_match_limit(context_.get(), kMaxWork / kItemWork);
    pcre2_set_depth_limit(context_.get(), kMaxWork / kItemWork);
    pcre2_set_heap_limit(context_.get(), kHeapLimitKiB);
    pcre2_set_callout(context_.get(), &Search::Count, this);
  }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  /// Whether there is a match at or after `start`.
  bool Find(size_t start, uint32_t options = 0) {
    if (hasFailed_ || !pattern_->code) return false;
    int result = Match(start, options);
    if (result == PCRE2_ERROR_JIT_STACKLIMIT && !stack_) {
      stack_ =
          NotNull(JitStack(pcre2_jit_stack_create(kJitStackBytes, kMaxJitStackBytes, nullptr)));
      pcre2_jit_stack_assign(context_.get(), nullptr, stack_.get());
      result = Match(start, options);
    }
    hasFailed_ = result < 0 && result != PCRE2_ERROR_NOMATCH;
    return result > 0;
  }

  /// Whether a search took too long or too much memory.
  bool HasFailed() const { return hasFailed_; }

  size_t Start() const { return Offsets()[0]; }
  size_t End() const { return Offsets()[1]; }
  uint32_t Groups() const { return pattern_->groups; }
  /// The text of a group, counted from 1, of the match found.
  std::string_view Group(uint32_t number) const {
    const size_t start = Offsets()[2 * number];
    if (start == PCRE2_UNSET) return {};
    return text_.substr(start, Offsets()[2 * number + 1] - start);
  }

 private:
  int Match(size_t start, uint32_t options) {
    position_ = start;
    return pcre2_match(pattern_->code.get(), Bytes(text_), text_.size(), start, options,
                       data_.get(), context_.get());
  }

  const size_t* Offsets() const { return pcre2_get_ovector_pointer(data_.get()); }

  static int Count(pcre2_callout_block* block, void* object) {
    auto* const self = static_cast<Search*>(object);
    const size_t position = block->current_position;
    self->work_ +=
        kItemWork + std::max(position, self->position_) - std::min(position, self->position_);
    if (self->pattern_->hasBackReferences) self->work_ += LongestGroup(*block);
    self->position_ = position;
    return self->work_ > kMaxWork ? PCRE2_ERROR_CALLOUT : 0;
  }

  // What a comparison with a group that fails may have cost.
  static size_t LongestGroup(const pcre2_callout_block& block) {
    size_t longest = 0;
    for (uint32_t i = 1; i < block.capture_top; ++i) {
      const size_t start = block.offset_vector[2 * i];
      const size_t end = block.offset_vector[2 * i + 1];
      if (start != PCRE2_UNSET && end > start) longest = std::max(longest, end - start);
    }
    return longest;
  }

  const std::shared_ptr<const Pattern> pattern_;
  const std::string_view text_;
  MatchContext context_;
  MatchData data_;
  JitStack stack_;
  uint64_t work_ = 0;
  size_t position_ = 0;
  bool hasFailed_ = false;
};

// Behind the character at `position`, which lies within the text.
size_t NextCharacter(std::string_view text, size_t position) {
  do {
    ++position;
  } while (position < text.size() && (static_cast<unsigned char>(text[position]) & 0xC0) == 0x80);
  return position;
}

// `*result` gets the text with the replacements made; false when that cannot be done.
bool ReplaceMatches(Search* search, std::string_view text, std::string_view replacement,
                    std::string* result, int* count) {
  size_t copied = 0;
  size_t position = 0;
  uint32_t options = 0;
  while (position <= text.size()) {
    if (!search->Find(position, options)) {
      if (options == 0 || position == text.size()) break;
      // Nothing but the empty match is where the last match ended, which would be found for ever.
      position = NextCharacter(text, position);
      options = 0;
      continue;
    }
    // "\K" in an assertion can put the start behind the end, or before the last match.
    if (search->Start() < copied || search->End() < search->Start()) return false;
    result->append(text, copied, search->Start() - copied);
    if (result->size() + replacement.size() > kMaxResultBytes) return false;
    result->append(replacement);
    ++*count;
    copied = position = search->End();
    options = search->Start() == search->End() ? PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED : 0;
  }
  result->append(text, copied);
  return !search->HasFailed();
}

// No exception passes the library's boundary.
template <typename Result, typename Operation>
Result Unless(Result failure, Operation operation) {
  try {
    return operation();
  } catch (...) {
    return failure;
  }
}

}  // namespace

bool MatchRegex(const ZelString& text, const ZelString& pattern, int flags) {
  if (flags != 0) return false;
  return Unless(false, [&] { return Search(Compiled(pattern.Utf8(), 0), text.Utf8()).Find(0); });
}

int PcreReplace(ZelString* text, const ZelString& pattern, const ZelString& replacement,
                int flags) {
  if (flags != 0) return 0;
  return Unless(0, [&] {
    Search search(Compiled(pattern.Utf8(), 0), text->Utf8());
    std::string result;
    int count = 0;
    if (!ReplaceMatches(&search, text->Utf8(), replacement.Utf8(), &result, &count)) return 0;
    if (count > 0) *text = ZelString(std::move(result));
    return count;
  });
}

int FindPcre(const ZelString& subject, const ZelString& pattern, ZelVector<ZelString>& captures,
             int start, int ignoreCase, int acrossLines) {
  captures.clear();
  return Unless(0, [&] {
    if (start < 0 || static_cast<size_t>(start) > subject.GetLength()) return 0;
    uint32_t options = ignoreCase != 0 ? PCRE2_CASELESS : 0;
    if (acrossLines != 0) options |= PCRE2_DOTALL | PCRE2_DOLLAR_ENDONLY;
    Search search(Compiled(pattern.Utf8(), options), subject.Utf8());
    if (!search.Find(static_cast<size_t>(start))) return 0;

    ZelVector<ZelString> texts;
    texts.reserve(search.Groups());
    for (uint32_t i = 1; i <= search.Groups(); ++i) texts.emplace_back(search.Group(i));
    captures = std::move(texts);
    return 1;
  });
}
