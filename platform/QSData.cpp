#include "platform/QSData.h"

#include <utility>

namespace quillsift {

QSData::QSData(std::string text) {
  auto storage = std::make_shared<const std::string>(std::move(text));
  bytes_ = std::as_bytes(std::span(*storage));
  storage_ = std::move(storage);
}

QSData::QSData(std::vector<std::byte> bytes) {
  auto storage = std::make_shared<const std::vector<std::byte>>(std::move(bytes));
  bytes_ = *storage;
  storage_ = std::move(storage);
}

QSData::QSData(std::shared_ptr<const void> storage, std::span<const std::byte> bytes)
    : storage_(std::move(storage)), bytes_(bytes) {}

QSData QSData::copyOf(std::span<const std::byte> bytes) {
  return QSData(std::vector<std::byte>(bytes.begin(), bytes.end()));
}

}  // namespace quillsift
