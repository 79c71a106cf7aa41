#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace quillsift {

class WireValue;
using WireArray = std::vector<WireValue>;

// Values by key, in the order in which they were put in, which is the order on the wire. Small:
// looked through from the start. Two are equal when they hold the same, in whatever order.
class WireDictionary {
 public:
  using Entry = std::pair<std::string, WireValue>;
  using Iterator = std::vector<Entry>::const_iterator;

  WireDictionary();
  WireDictionary(std::initializer_list<Entry> entries);
  WireDictionary(const WireDictionary&);
  WireDictionary(WireDictionary&&) noexcept;
  WireDictionary& operator=(const WireDictionary&);
  WireDictionary& operator=(WireDictionary&&) noexcept;
  ~WireDictionary();

  // False, with nothing changed, when there is a value already.
  template <typename T>
  bool emplace(std::string key, T value);
  void insert_or_assign(const std::string& key, WireValue value);
  // Throws std::out_of_range for a key that is not there.
  const WireValue& at(const std::string& key) const;

  Iterator find(const std::string& key) const;
  Iterator begin() const;
  Iterator end() const;
  std::size_t size() const;
  std::size_t capacity() const;  // entries that the memory it holds has room for
  bool empty() const;

  bool operator==(const WireDictionary& other) const;

 private:
  bool add(std::string key, WireValue value);

  std::vector<Entry> entries_;
};

// One argument of a message on a service connection. On the wire its type is given by the
// interface's signature; inside a dictionary, whose values are typed each for itself, by the
// alternative held: bool b, int64 x, uint64 t, double d, string s.
class WireValue {
 public:
  using Storage = std::variant<bool, std::int64_t, std::uint64_t, double, std::string, WireArray,
                               WireDictionary>;

  WireValue() : storage_(false) {}
  explicit WireValue(bool value) : storage_(value) {}
  explicit WireValue(std::int64_t value) : storage_(value) {}
  explicit WireValue(std::uint64_t value) : storage_(value) {}
  explicit WireValue(double value) : storage_(value) {}
  explicit WireValue(std::string value) : storage_(std::move(value)) {}
  explicit WireValue(const char* value) : storage_(std::string(value)) {}
  explicit WireValue(WireArray value) : storage_(std::move(value)) {}
  explicit WireValue(WireDictionary value) : storage_(std::move(value)) {}

  // The value if it has this type, else null.
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&storage_);
  }
  const Storage& storage() const { return storage_; }

  bool operator==(const WireValue&) const = default;

 private:
  Storage storage_;
};

template <typename T>
bool WireDictionary::emplace(std::string key, T value) {
  return add(std::move(key), WireValue(std::move(value)));
}

}  // namespace quillsift
