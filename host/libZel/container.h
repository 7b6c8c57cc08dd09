#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "libZel/string.h"

/// The index that means "the single value, no list".
constexpr uint32_t kNoIndex = ~0U;

enum class ZelValueType : uint8_t { kString, kInt32, kInt64, kBool, kContainer };

/// A typed key/value store. A key holds one value, or a list of values of one type numbered from 0.
/// Keys keep the order in which they were first set.
///
/// Copying is cheap: copies share their content until one of them changes.
///
/// Threads: like a standard container; copies that share content are independent.
class ZelContainer {
 public:
  class Entry;

  ZelContainer() = default;
  ZelContainer(const ZelContainer& other);
  ZelContainer(ZelContainer&& other) noexcept : content_(std::exchange(other.content_, nullptr)) {}
  ZelContainer& operator=(const ZelContainer& other);
  ZelContainer& operator=(ZelContainer&& other) noexcept;
  ~ZelContainer();

  /// Reads the value at `index` of the list under `key`, or the single value with `kNoIndex`
  /// (index 0 reads a single value too). False, with the output as it was, when there is no such
  /// value or it has another type. Integers convert between 32 and 64 bits where the value fits;
  /// the unsigned form of `GetInt32` takes the 32 bits as they are.
  bool GetString(const ZelString& key, ZelString* value, uint32_t index) const;
  bool GetInt32(const ZelString& key, int32_t* value, uint32_t index) const;
  bool GetInt32(const ZelString& key, uint32_t* value, uint32_t index) const;
  bool GetInt64(const ZelString& key, int64_t* value, uint32_t index) const;
  bool GetBool(const ZelString& key, bool* value, uint32_t index) const;
  bool GetContainer(const ZelString& key, ZelContainer* value, uint32_t index) const;

  /// Writes the single value under `key` (`kNoIndex`), whatever the key held before; or the value
  /// at `index` of its list: an existing one is replaced, the index after the last one appends.
  /// False, with nothing changed, for an index beyond that or a type other than the list's.
  /// A text holds up to 2^32 - 2 bytes. The second form takes a large text over instead of copying
  /// it; what is left of `value` then is valid but unspecified.
  bool SetString(const ZelString& key, const ZelString& value, uint32_t index);
  bool SetString(const ZelString& key, ZelString&& value, uint32_t index);
  bool SetInt32(const ZelString& key, int32_t value, uint32_t index);
  bool SetInt64(const ZelString& key, int64_t value, uint32_t index);
  bool SetBool(const ZelString& key, bool value, uint32_t index);
  bool SetContainer(const ZelString& key, const ZelContainer& value, uint32_t index);

  /// The number of values under `key`: 0 when absent, 1 for a single value.
  int CountValues(const ZelString& key) const;
  /// Removes one key with all its values; false when it was absent.
  bool Remove(const ZelString& key);
  /// Removes every key.
  void Clear();

  size_t CountKeys() const;
  /// The key at `position` (0 to `CountKeys() - 1`) with its values, valid until the container
  /// changes.
  Entry EntryAt(size_t position) const;

  friend bool operator==(const ZelContainer& a, const ZelContainer& b);

 private:
  friend class Entry;
  struct Content;
  struct Value;
  struct Slot;

  const Slot* Find(std::string_view key) const;
  const Value* FindValue(const ZelString& key, uint32_t index) const;
  bool Set(const ZelString& key, Value value, uint32_t index);
  Content& Writable();
  static Content* Retain(Content* content);
  static void Release(Content* content);

  Content* content_ = nullptr;
};

/// A read-only view of one key.
class ZelContainer::Entry {
 public:
  std::string_view Key() const;
  ZelValueType Type() const;
  /// Whether the values form a list (which may be one value long).
  bool IsList() const;
  size_t Count() const;
  /// The value at `index`, below `Count()`; the caller has looked at `Type()`.
  std::string_view StringAt(size_t index) const;
  int64_t IntegerAt(size_t index) const;
  bool BoolAt(size_t index) const;
  ZelContainer ContainerAt(size_t index) const;

 private:
  friend class ZelContainer;
  explicit Entry(const Slot* slot) : slot_(slot) {}
  const Value& At(size_t index) const;

  const Slot* slot_;
};
