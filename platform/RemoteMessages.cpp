#include "platform/RemoteMessages.h"

#include <string_view>
#include <variant>

#include "platform/Text.h"

namespace quillsift {

namespace {

// Longer texts add nothing for a reader and come from outside.
constexpr std::size_t kLongestDescription = 1024;

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char character : validUTF8(text.substr(0, kLongestDescription))) {
    const bool control = static_cast<unsigned char>(character) < ' ' || character == '\x7f';
    result += control ? '?' : character;
  }
  return result + "\"";
}

struct Describe {
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const { return formatted("%g", value); }
  std::string operator()(const std::string& value) const { return quoted(value); }
  std::string operator()(const WireArray& value) const {
    return formatted("<array of %zu>", value.size());
  }
  std::string operator()(const WireDictionary& value) const {
    return formatted("<dictionary of %zu>", value.size());
  }
};

}  // namespace

std::string RemoteDictionary::description() const {
  std::string entries;
  const auto add = [&entries](const std::string& key, const std::string& value) {
    if (entries.size() > kLongestDescription) return;
    entries += (entries.empty() ? " " : ", ") + quoted(key) + ": " + value;
  };
  for (const auto& [key, value] : values)
    add(key, std::visit(Describe{}, value.storage()));
  for (const auto& [key, file] : files)
    add(key, "<file transfer>");
  if (entries.size() > kLongestDescription) {
    entries = validUTF8(std::string_view(entries).substr(0, kLongestDescription)) + "...";
  }
  return "{" + entries + " }";
}

}  // namespace quillsift
