#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillsift {

// One JSON object, built member by member in the order in which they print. Texts come out as
// valid UTF-8 on one line, whatever bytes went in; none and numbers that JSON lacks are null.
class JsonObject {
 public:
  JsonObject& add(std::string_view key, std::string_view value);
  JsonObject& add(std::string_view key, const char* value) {
    return add(key, std::string_view(value));
  }
  JsonObject& add(std::string_view key, std::same_as<bool> auto value) {
    return addRaw(key, value ? "true" : "false");
  }
  JsonObject& add(std::string_view key,
                  std::integral auto value) requires(!std::same_as<decltype(value), bool>) {
    return addRaw(key, std::to_string(value));
  }
  JsonObject& add(std::string_view key, double value);
  JsonObject& add(std::string_view key, const std::vector<JsonObject>& values);
  template <typename T>
  JsonObject& add(std::string_view key, const std::optional<T>& value) {
    return value ? add(key, *value) : addRaw(key, "null");
  }
  // Puts the members of `other` behind these.
  JsonObject& append(const JsonObject& other);

  // "{...}", without a line end.
  std::string text() const { return "{" + members_ + "}"; }

 private:
  JsonObject& addRaw(std::string_view key, std::string_view value);

  std::string members_;
};

}  // namespace quillsift
