#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace smb {

/// A text in UTF-16, terminated, that is wiped with the object: unlike the view that a ZelString
/// keeps.
class WideSecret {
 public:
  explicit WideSecret(std::string_view wtf8);
  ~WideSecret();
  WideSecret(const WideSecret&) = delete;
  WideSecret& operator=(const WideSecret&) = delete;

  uint16_t* Get() { return units_.data(); }
  /// Without the terminator.
  std::span<const uint16_t> View() const { return std::span(units_).first(units_.size() - 1); }

 private:
  void Append(uint32_t character);

  std::vector<uint16_t> units_;
};

}  // namespace smb
