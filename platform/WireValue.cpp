#include "platform/WireValue.h"

#include <algorithm>
#include <stdexcept>

namespace quillsift {

WireDictionary::WireDictionary() = default;
WireDictionary::WireDictionary(const WireDictionary&) = default;
WireDictionary::WireDictionary(WireDictionary&&) noexcept = default;
WireDictionary& WireDictionary::operator=(const WireDictionary&) = default;
WireDictionary& WireDictionary::operator=(WireDictionary&&) noexcept = default;
WireDictionary::~WireDictionary() = default;

WireDictionary::WireDictionary(std::initializer_list<Entry> entries) {
  for (const Entry& entry : entries)
    add(entry.first, entry.second);
}

bool WireDictionary::add(std::string key, WireValue value) {
  if (find(key) != end()) return false;
  entries_.emplace_back(std::move(key), std::move(value));
  return true;
}

void WireDictionary::insert_or_assign(const std::string& key, WireValue value) {
  for (Entry& entry : entries_) {
    if (entry.first != key) continue;
    entry.second = std::move(value);
    return;
  }
  entries_.emplace_back(key, std::move(value));
}

const WireValue& WireDictionary::at(const std::string& key) const {
  const Iterator found = find(key);
  if (found == end()) throw std::out_of_range("no value for the key " + key);
  return found->second;
}

WireDictionary::Iterator WireDictionary::find(const std::string& key) const {
  return std::find_if(begin(), end(), [&](const Entry& entry) { return entry.first == key; });
}

WireDictionary::Iterator WireDictionary::begin() const {
  return entries_.begin();
}

WireDictionary::Iterator WireDictionary::end() const {
  return entries_.end();
}

std::size_t WireDictionary::capacity() const {
  return entries_.capacity();
}

std::size_t WireDictionary::size() const {
  return entries_.size();
}

bool WireDictionary::empty() const {
  return entries_.empty();
}

bool WireDictionary::operator==(const WireDictionary& other) const {
  if (size() != other.size()) return false;
  return std::all_of(begin(), end(), [&](const Entry& entry) {
    const Iterator found = other.find(entry.first);
    return found != other.end() && found->second == entry.second;
  });
}

}  // namespace quillsift
