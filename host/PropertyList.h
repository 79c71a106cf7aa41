#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/QSData.h"
#include "platform/QSDate.h"

namespace quillsift {

// A property list: a value of one of eight types, of which arrays and dictionaries hold others. An
// integer beyond the signed ones is an unsigned one, never both.
class PropertyList {
 public:
  using Array = std::vector<PropertyList>;
  using Dictionary = std::map<std::string, PropertyList>;
  using Value = std::variant<std::string, std::int64_t, std::uint64_t, double, bool, QSDate, QSData,
                             Array, Dictionary>;

  // What is read or written has no more levels than this, the outermost value being the first.
  static constexpr int kMostLevels = 64;
  // Nothing longer is read.
  static constexpr std::size_t kMostBytes = std::size_t{1} << 20;

  // Conversions, so that lists can be written down as they are.
  // NOLINTBEGIN(google-explicit-constructor)
  PropertyList(const char* text) : value_(std::string(text)) {}
  PropertyList(std::string text) : value_(std::move(text)) {}
  PropertyList(int number) : value_(std::int64_t{number}) {}
  PropertyList(std::int64_t number) : value_(number) {}
  PropertyList(std::uint64_t number);
  PropertyList(double number) : value_(number) {}
  PropertyList(bool truth) : value_(truth) {}
  PropertyList(QSDate date) : value_(date) {}
  PropertyList(QSData bytes) : value_(std::move(bytes)) {}
  PropertyList(Array elements) : value_(std::move(elements)) {}
  PropertyList(Dictionary entries) : value_(std::move(entries)) {}
  // NOLINTEND(google-explicit-constructor)

  const Value& value() const { return value_; }
  // Null when the value is of another type.
  template <typename T>
  const T* get() const {
    return std::get_if<T>(&value_);
  }
  // An entry of a dictionary; null when there is none, or this is none.
  const PropertyList* find(const std::string& key) const;

  // Reads an XML property list in UTF-8. None for anything else, for one that is too long or too
  // deep, and for one that declares entities: none is ever expanded.
  static std::optional<PropertyList> fromXML(std::string_view xml);
  // The list as XML in UTF-8, without a document type. None when it is too deep or holds what XML
  // cannot: text that is not UTF-8 or has control characters, a date outside of the years 1 to
  // 9999. Dates are written to the second; a carriage return will be read as a new line.
  std::optional<QSData> toXML() const;

 private:
  Value value_;
};

}  // namespace quillsift
