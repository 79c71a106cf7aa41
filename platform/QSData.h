#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillsift {

// An immutable byte buffer. Copies share the bytes, so captured output is held once however many
// readers it has; the storage (heap, anonymous memory, file mapping) goes with the last copy.
// "No data" is an empty optional<QSData>; a QSData of length 0 is data that happens to be empty.
class QSData {
 public:
  QSData() = default;
  explicit QSData(std::string text);
  explicit QSData(std::vector<std::byte> bytes);
  // Bytes that `storage` keeps alive and unchanged until its last reference goes.
  QSData(std::shared_ptr<const void> storage, std::span<const std::byte> bytes);

  static QSData copyOf(std::span<const std::byte> bytes);

  std::span<const std::byte> bytes() const { return bytes_; }
  std::size_t length() const { return bytes_.size(); }
  std::string_view text() const {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }

 private:
  std::shared_ptr<const void> storage_;
  std::span<const std::byte> bytes_;
};

}  // namespace quillsift
