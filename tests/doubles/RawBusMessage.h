#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillsift {

// A message of the bus protocol written by hand (little endian), right or wrong.
struct RawBusMessage {
  enum Kind : std::uint8_t { call = 1, answer = 2, error = 3, signal = 4 };

  Kind kind = signal;
  std::uint32_t serial = 1;
  std::string path = {};
  std::string interface = {};
  std::string member = {};
  std::string errorName = {};
  std::optional<std::uint32_t> answered = {};  // the serial of the call
  std::string signature = {};
  std::uint32_t descriptors = 0;
  std::string body = {};
  std::optional<std::uint32_t> claimedLength = {};  // of the body, instead of its own

  std::string bytes() const;
};

// Pieces of a body, each to be put where its type is aligned to.
std::string rawNumber(std::uint64_t value, std::size_t bytes = 8);
std::string rawText(std::string_view text);
std::string rawSignature(std::string_view signature);

struct RawEntry {
  std::string key;
  std::string type;
  std::string value;  // its pieces
};

// The body of an a{sv}.
std::string rawDictionary(const std::vector<RawEntry>& entries);

}  // namespace quillsift
