#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace quillsift {

// A UUID, and its one text form here: 36 characters, upper case. Texts are compared exactly.
class QSUUID {
 public:
  // Version 4, from the kernel's random source.
  static QSUUID random();

  const std::string& text() const { return text_; }

  bool operator==(const QSUUID&) const = default;

 private:
  explicit QSUUID(const std::array<std::uint8_t, 16>& bytes);

  std::string text_;
};

}  // namespace quillsift
