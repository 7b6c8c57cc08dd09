#include "libZel/container.h"

#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/libZel/per_thread.h"

// A listing of 100,000 rows holds a million values, so every value is 16 bytes and every key 24:
// texts are shared and counted, and a key written again and again ("Size" in each row) is stored
// once.

namespace {

/// An immutable text with a reference count. Behind the header follow its bytes or, for a large one
/// that was moved in, the string that holds them.
struct SharedText {
  static constexpr uint32_t kIsString = ~0U;

  std::atomic<uint32_t> references{1};
  uint32_t sizeBytes = 0;

  std::string_view View() const {
    if (sizeBytes == kIsString) return *String();
    return {reinterpret_cast<const char*>(this + 1), sizeBytes};
  }

  static SharedText* Make(std::string_view text) {
    SharedText* const made = Allocate(text.size(), static_cast<uint32_t>(text.size()));
    std::memcpy(reinterpret_cast<char*>(made + 1), text.data(), text.size());
    return made;
  }
  static SharedText* Make(std::string&& text) {
    SharedText* const made = Allocate(sizeof text, kIsString);
    new (made + 1) std::string(std::move(text));
    return made;
  }
  static void Delete(SharedText* text) {
    if (text->sizeBytes == kIsString) std::destroy_at(text->String());
    std::destroy_at(text);
    ::operator delete(text);
  }

 private:
  static_assert(alignof(std::string) <= 8);

  static SharedText* Allocate(size_t bytesBehind, uint32_t size) {
    auto* const made = new (::operator new(sizeof(SharedText) + bytesBehind)) SharedText;
    made->sizeBytes = size;
    return made;
  }
  std::string* String() { return std::launder(reinterpret_cast<std::string*>(this + 1)); }
  const std::string* String() const {
    return std::launder(reinterpret_cast<const std::string*>(this + 1));
  }
};
static_assert(sizeof(SharedText) == 8);

SharedText* RetainText(SharedText* text) {
  text->references.fetch_add(1, std::memory_order_relaxed);
  return text;
}

void ReleaseText(SharedText* text) {
  if (text->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  SharedText::Delete(text);
}

/// Owns one reference.
class TextHandle {
 public:
  explicit TextHandle(std::string_view text) : text_(SharedText::Make(text)) {}
  explicit TextHandle(SharedText* retained) : text_(retained) {}
  TextHandle(const TextHandle& other) : text_(RetainText(other.text_)) {}
  TextHandle(TextHandle&& other) noexcept : text_(std::exchange(other.text_, nullptr)) {}
  TextHandle& operator=(TextHandle other) noexcept {
    std::swap(text_, other.text_);
    return *this;
  }
  ~TextHandle() {
    if (text_ != nullptr) ReleaseText(text_);
  }
  std::string_view View() const { return text_->View(); }

 private:
  SharedText* text_;
};

/// The keys that this thread wrote last, so that rows share them. Bounded, so hostile keys cannot
/// fill the memory.
class RecentKeys {
 public:
  TextHandle Get(std::string_view key) {
    std::unique_ptr<TextHandle>& place = places_[std::hash<std::string_view>()(key) % kPlaces];
    if (place == nullptr || place->View() != key) place = std::make_unique<TextHandle>(key);
    return *place;
  }

 private:
  static constexpr size_t kPlaces = 64;
  std::unique_ptr<TextHandle> places_[kPlaces];
};

constexpr size_t kMostTextBytes = SharedText::kIsString - 1;

TextHandle KeyText(std::string_view key) {
  constexpr size_t kLongestSharedKey = 64;
  static PerThread<RecentKeys> recentKeys;
  return key.size() <= kLongestSharedKey ? recentKeys.Get().Get(key) : TextHandle(key);
}

}  // namespace

struct ZelContainer::Value {
  enum class Kind : uint8_t { kString, kInt32, kInt64, kBool, kContainer, kList };
  using List = std::vector<Value>;

  static Value Text(std::string_view text) { return Holding(SharedText::Make(text)); }
  static Value Text(std::string&& text) { return Holding(SharedText::Make(std::move(text))); }
  static Value Integer(Kind kind, int64_t number) {
    Value value(kind);
    value.as.integer = number;
    return value;
  }
  static Value Nested(const ZelContainer& container);
  static Value ListOf(Value first) {
    Value value(Kind::kList);
    value.as.list = new List;
    value.as.list->push_back(std::move(first));
    return value;
  }

  Value(const Value& other) : kind(other.kind), as(other.as) {
    if (kind == Kind::kString) RetainText(as.text);
    if (kind == Kind::kList) as.list = new List(*other.as.list);
    if (kind == Kind::kContainer) Retain(as.content);
  }
  Value(Value&& other) noexcept : kind(other.kind), as(other.as) { other.Forget(); }
  Value& operator=(Value other) noexcept {
    std::swap(kind, other.kind);
    std::swap(as, other.as);
    return *this;
  }
  ~Value() {
    if (kind == Kind::kString) ReleaseText(as.text);
    if (kind == Kind::kList) delete as.list;
    if (kind == Kind::kContainer) Release(as.content);
  }

  bool IsList() const { return kind == Kind::kList; }
  /// The element type of a list, or the value's own.
  Kind ElementKind() const { return IsList() ? as.list->front().kind : kind; }
  size_t Count() const { return IsList() ? as.list->size() : 1; }
  const Value& At(size_t index) const { return IsList() ? (*as.list)[index] : *this; }
  /// A nested container, sharing its content.
  ZelContainer Container() const;

  Kind kind;
  union {
    SharedText* text;
    int64_t integer;
    List* list;
    Content* content;
  } as;

 private:
  explicit Value(Kind kindOfValue) : kind(kindOfValue) { as.integer = 0; }
  static Value Holding(SharedText* text) {
    Value value(Kind::kString);
    value.as.text = text;
    return value;
  }
  void Forget() {
    kind = Kind::kInt32;
    as.integer = 0;
  }
};

struct ZelContainer::Slot {
  TextHandle key;
  Value value;
};

struct ZelContainer::Content {
  /// Above this many keys a search goes through an index.
  static constexpr size_t kMostSearchedInOrder = 16;
  static constexpr size_t kUsualKeys = 4;
  using Index = std::unordered_map<std::string_view, size_t>;

  Content() = default;
  Content(const Content& other) : slots(other.slots) {
    if (slots.size() > kMostSearchedInOrder) BuildIndex();
  }

  /// The position of `key`, or the number of slots.
  size_t Find(std::string_view key) const {
    if (index != nullptr) {
      const auto found = index->find(key);
      return found == index->end() ? slots.size() : found->second;
    }
    size_t position = 0;
    while (position < slots.size() && slots[position].key.View() != key) ++position;
    return position;
  }
  void Add(std::string_view key, Value value) {
    // Most containers have a few keys: rows of a table are spared two moves.
    if (slots.empty()) slots.reserve(kUsualKeys);
    slots.push_back({KeyText(key), std::move(value)});
    if (index != nullptr) {
      index->emplace(slots.back().key.View(), slots.size() - 1);
    } else if (slots.size() > kMostSearchedInOrder) {
      BuildIndex();
    }
  }
  void RemoveAt(size_t position) {
    slots.erase(slots.begin() + static_cast<ptrdiff_t>(position));
    index.reset();
    if (slots.size() > kMostSearchedInOrder) BuildIndex();
  }
  void BuildIndex() {
    index = std::make_unique<Index>();
    for (size_t i = 0; i < slots.size(); ++i) index->emplace(slots[i].key.View(), i);
  }

  std::atomic<uint32_t> references{1};
  std::vector<Slot> slots;
  std::unique_ptr<Index> index;
};

ZelContainer::Value ZelContainer::Value::Nested(const ZelContainer& container) {
  Value value(Kind::kContainer);
  value.as.content = Retain(container.content_);
  return value;
}

ZelContainer ZelContainer::Value::Container() const {
  ZelContainer container;
  container.content_ = Retain(as.content);
  return container;
}

ZelContainer::Content* ZelContainer::Retain(Content* content) {
  if (content != nullptr) content->references.fetch_add(1, std::memory_order_relaxed);
  return content;
}

void ZelContainer::Release(Content* content) {
  if (content == nullptr) return;
  if (content->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete content;
}

ZelContainer::ZelContainer(const ZelContainer& other) : content_(Retain(other.content_)) {}

ZelContainer& ZelContainer::operator=(const ZelContainer& other) {
  ZelContainer copy(other);
  std::swap(content_, copy.content_);
  return *this;
}

ZelContainer& ZelContainer::operator=(ZelContainer&& other) noexcept {
  if (this == &other) return *this;
  Release(std::exchange(content_, std::exchange(other.content_, nullptr)));
  return *this;
}

ZelContainer::~ZelContainer() {
  Release(content_);
}

ZelContainer::Content& ZelContainer::Writable() {
  if (content_ == nullptr) {
    content_ = new Content;
  } else if (content_->references.load(std::memory_order_acquire) != 1) {
    auto* copy = new Content(*content_);
    Release(std::exchange(content_, copy));
  }
  return *content_;
}

const ZelContainer::Slot* ZelContainer::Find(std::string_view key) const {
  if (content_ == nullptr) return nullptr;
  const size_t position = content_->Find(key);
  return position < content_->slots.size() ? &content_->slots[position] : nullptr;
}

const ZelContainer::Value* ZelContainer::FindValue(const ZelString& key, uint32_t index) const {
  const Slot* slot = Find(key.Utf8());
  if (slot == nullptr) return nullptr;
  if (index == kNoIndex) return slot->value.IsList() ? nullptr : &slot->value;
  return index < slot->value.Count() ? &slot->value.At(index) : nullptr;
}

bool ZelContainer::GetString(const ZelString& key, ZelString* value, uint32_t index) const {
  const Value* found = FindValue(key, index);
  if (found == nullptr || found->kind != Value::Kind::kString) return false;
  *value = ZelString(found->as.text->View());
  return true;
}

bool ZelContainer::GetInt64(const ZelString& key, int64_t* value, uint32_t index) const {
  const Value* found = FindValue(key, index);
  const bool isInteger = found != nullptr &&
                         (found->kind == Value::Kind::kInt32 || found->kind == Value::Kind::kInt64);
  if (!isInteger) return false;
  *value = found->as.integer;
  return true;
}

bool ZelContainer::GetInt32(const ZelString& key, int32_t* value, uint32_t index) const {
  int64_t wide = 0;
  if (!GetInt64(key, &wide, index)) return false;
  if (wide < std::numeric_limits<int32_t>::min() || wide > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  *value = static_cast<int32_t>(wide);
  return true;
}

bool ZelContainer::GetInt32(const ZelString& key, uint32_t* value, uint32_t index) const {
  int64_t wide = 0;
  if (!GetInt64(key, &wide, index)) return false;
  if (wide < std::numeric_limits<int32_t>::min() || wide > std::numeric_limits<uint32_t>::max()) {
    return false;
  }
  *value = static_cast<uint32_t>(wide);
  return true;
}

bool ZelContainer::GetBool(const ZelString& key, bool* value, uint32_t index) const {
  const Value* found = FindValue(key, index);
  if (found == nullptr || found->kind != Value::Kind::kBool) return false;
  *value = found->as.integer != 0;
  return true;
}

bool ZelContainer::GetContainer(const ZelString& key, ZelContainer* value, uint32_t index) const {
  const Value* found = FindValue(key, index);
  if (found == nullptr || found->kind != Value::Kind::kContainer) return false;
  *value = found->Container();
  return true;
}

bool ZelContainer::Set(const ZelString& key, Value value, uint32_t index) {
  const size_t position = content_ == nullptr ? 0 : content_->Find(key.Utf8());
  const bool exists = content_ != nullptr && position < content_->slots.size();
  if (!exists) {
    if (index != kNoIndex && index != 0) return false;
    Writable().Add(key.Utf8(), index == 0 ? Value::ListOf(std::move(value)) : std::move(value));
    return true;
  }

  const Value& held = content_->slots[position].value;
  if (index == kNoIndex) {
    Writable().slots[position].value = std::move(value);
    return true;
  }
  const bool replacesOnly = index == 0 && held.Count() == 1;
  if (index > held.Count() || (!replacesOnly && held.ElementKind() != value.kind)) return false;

  Value& target = Writable().slots[position].value;
  if (replacesOnly) {
    target = Value::ListOf(std::move(value));
    return true;
  }
  if (!target.IsList()) target = Value::ListOf(std::move(target));
  Value::List& list = *target.as.list;
  if (index == list.size()) {
    list.push_back(std::move(value));
  } else {
    list[index] = std::move(value);
  }
  return true;
}

bool ZelContainer::SetString(const ZelString& key, const ZelString& value, uint32_t index) {
  if (value.GetLength() > kMostTextBytes) return false;
  return Set(key, Value::Text(value.Utf8()), index);
}

bool ZelContainer::SetString(const ZelString& key, ZelString&& value, uint32_t index) {
  // Small texts take less memory as copies.
  constexpr size_t kLargeTextBytes = 64 * 1024;
  if (value.GetLength() < kLargeTextBytes || value.GetLength() > kMostTextBytes) {
    return SetString(key, std::as_const(value), index);
  }
  return Set(key, Value::Text(std::move(value).TakeUtf8()), index);
}

bool ZelContainer::SetInt32(const ZelString& key, int32_t value, uint32_t index) {
  return Set(key, Value::Integer(Value::Kind::kInt32, value), index);
}

bool ZelContainer::SetInt64(const ZelString& key, int64_t value, uint32_t index) {
  return Set(key, Value::Integer(Value::Kind::kInt64, value), index);
}

bool ZelContainer::SetBool(const ZelString& key, bool value, uint32_t index) {
  return Set(key, Value::Integer(Value::Kind::kBool, value ? 1 : 0), index);
}

bool ZelContainer::SetContainer(const ZelString& key, const ZelContainer& value, uint32_t index) {
  return Set(key, Value::Nested(value), index);
}

int ZelContainer::CountValues(const ZelString& key) const {
  const Slot* slot = Find(key.Utf8());
  return slot == nullptr ? 0 : static_cast<int>(slot->value.Count());
}

bool ZelContainer::Remove(const ZelString& key) {
  if (Find(key.Utf8()) == nullptr) return false;
  Content& content = Writable();
  content.RemoveAt(content.Find(key.Utf8()));
  return true;
}

void ZelContainer::Clear() {
  Release(std::exchange(content_, nullptr));
}

size_t ZelContainer::CountKeys() const {
  return content_ == nullptr ? 0 : content_->slots.size();
}

ZelContainer::Entry ZelContainer::EntryAt(size_t position) const {
  return Entry(&content_->slots[position]);
}

bool operator==(const ZelContainer& a, const ZelContainer& b) {
  const auto sameValue = [](const ZelContainer::Value& x, const ZelContainer::Value& y) {
    if (x.IsList() != y.IsList() || x.Count() != y.Count()) return false;
    if (x.ElementKind() != y.ElementKind()) return false;
    for (size_t i = 0; i < x.Count(); ++i) {
      const auto& left = x.At(i);
      const auto& right = y.At(i);
      if (left.kind == ZelContainer::Value::Kind::kString) {
        if (left.as.text->View() != right.as.text->View()) return false;
      } else if (left.kind == ZelContainer::Value::Kind::kContainer) {
        if (!(left.Container() == right.Container())) return false;
      } else if (left.as.integer != right.as.integer) {
        return false;
      }
    }
    return true;
  };
  if (a.content_ == b.content_) return true;
  if (a.CountKeys() != b.CountKeys()) return false;
  for (size_t i = 0; i < a.CountKeys(); ++i) {
    const ZelContainer::Slot& slot = a.content_->slots[i];
    const ZelContainer::Slot* other = b.Find(slot.key.View());
    if (other == nullptr || !sameValue(slot.value, other->value)) return false;
  }
  return true;
}

const ZelContainer::Value& ZelContainer::Entry::At(size_t index) const {
  return slot_->value.At(index);
}

std::string_view ZelContainer::Entry::Key() const {
  return slot_->key.View();
}

ZelValueType ZelContainer::Entry::Type() const {
  return static_cast<ZelValueType>(slot_->value.ElementKind());
}

bool ZelContainer::Entry::IsList() const {
  return slot_->value.IsList();
}

size_t ZelContainer::Entry::Count() const {
  return slot_->value.Count();
}

std::string_view ZelContainer::Entry::StringAt(size_t index) const {
  return At(index).as.text->View();
}

int64_t ZelContainer::Entry::IntegerAt(size_t index) const {
  return At(index).as.integer;
}

bool ZelContainer::Entry::BoolAt(size_t index) const {
  return At(index).as.integer != 0;
}

ZelContainer ZelContainer::Entry::ContainerAt(size_t index) const {
  return At(index).Container();
}
