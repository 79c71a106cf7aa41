#include "platform/linux/IncomingBytes.h"

#include <cstdint>
#include <optional>

namespace quillsift {

namespace {

// The part of a message that every one begins with: byte order, type, flags, version, length of the
// body, serial number, length of the header fields.
constexpr std::size_t kFixedHeader = 16;
constexpr std::uint8_t kProtocolVersion = 1;
// Storage that is kept for the next message; what a long one needed is given back.
constexpr std::size_t kKeptStorage = std::size_t{16} << 10;

std::uint32_t numberAt(std::string_view bytes, std::size_t at, bool littleEndian) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto byte = static_cast<std::uint8_t>(bytes[at + i]);
    number |= std::uint32_t{byte} << (8 * (littleEndian ? i : 3 - i));
  }
  return number;
}

// How long the message is that `bytes` begin with; none when it is no message.
std::optional<std::uint64_t> messageLength(std::string_view bytes) {
  const bool littleEndian = bytes[0] == 'l';
  if (!littleEndian && bytes[0] != 'B') return std::nullopt;
  const auto type = static_cast<std::uint8_t>(bytes[1]);
  const auto version = static_cast<std::uint8_t>(bytes[3]);
  const std::uint64_t body = numberAt(bytes, 4, littleEndian);
  const std::uint32_t serial = numberAt(bytes, 8, littleEndian);
  const std::uint64_t fields = numberAt(bytes, 12, littleEndian);
  if (type == 0 || version != kProtocolVersion || serial == 0) return std::nullopt;
  return kFixedHeader + (fields + 7) / 8 * 8 + body;  // the body begins at a multiple of eight
}

}  // namespace

IncomingBytes::IncomingBytes(std::size_t maximumLine, std::size_t maximumMessage)
    : maximumLine_(maximumLine), maximumMessage_(maximumMessage) {}

void IncomingBytes::append(std::string_view bytes) {
  bytes_.erase(0, begin_);
  begin_ = 0;
  if (bytes_.empty() && bytes_.capacity() > kKeptStorage) bytes_ = std::string();
  bytes_ += bytes;
}

IncomingBytes::Cut IncomingBytes::nextLine(std::string_view* line) {
  const std::size_t end = rest().find("\r\n");
  if (end == std::string_view::npos) {
    const std::size_t halfAnEnd = rest().ends_with('\r') ? 1 : 0;
    return rest().size() - halfAnEnd > maximumLine_ ? Cut::tooLong : Cut::incomplete;
  }
  if (end > maximumLine_) return Cut::tooLong;
  *line = take(end + 2);
  return Cut::piece;
}

IncomingBytes::Cut IncomingBytes::nextMessage(std::string_view* message) {
  if (rest().size() < kFixedHeader) return Cut::incomplete;
  const auto length = messageLength(rest());
  if (!length) return Cut::malformed;
  if (*length > maximumMessage_) return Cut::tooLong;
  if (rest().size() < *length) return Cut::incomplete;
  *message = take(static_cast<std::size_t>(*length));
  return Cut::piece;
}

std::string_view IncomingBytes::take(std::size_t length) {
  const std::string_view taken = rest().substr(0, length);
  begin_ += length;
  return taken;
}

}  // namespace quillsift
