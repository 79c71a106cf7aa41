#include "tests/doubles/FakeDeviceRegistry.h"

#include <utility>

namespace quillsift {

namespace {

constexpr const char* kFirmwareVariables = "DrDeviceTree:/options";

}  // namespace

class FakeDeviceRegistry::Object : public RegistryObject {
 public:
  explicit Object(std::shared_ptr<const Record> record) : record_(std::move(record)) {}

  std::optional<RegistryValue> property(const std::string& name) override {
    const auto found = record_->properties.find(name);
    if (found == record_->properties.end()) return std::nullopt;
    return found->second;
  }

 private:
  const std::shared_ptr<const Record> record_;
};

class FakeDeviceRegistry::Iterator : public RegistryIterator {
 public:
  Iterator(FakeDeviceRegistry& registry, RegistryMatch match)
      : registry_(registry), match_(std::move(match)), records_(registry.matching(match_)) {}

  std::unique_ptr<RegistryObject> next() override {
    if (position_ == records_.size()) return nullptr;
    return std::make_unique<Object>(records_[position_++]);
  }

  void reset() override {
    records_ = registry_.matching(match_);
    position_ = 0;
    MutexLock lock(registry_.mutex_);
    ++registry_.resets_;
    if (registry_.spoiledPasses_ > 0) --registry_.spoiledPasses_;
  }

  bool isValid() override {
    MutexLock lock(registry_.mutex_);
    return registry_.spoiledPasses_ == 0;
  }

 private:
  FakeDeviceRegistry& registry_;
  const RegistryMatch match_;
  std::vector<std::shared_ptr<const Record>> records_;
  std::size_t position_ = 0;
};

void FakeDeviceRegistry::add(const std::string& path, const std::string& providerClass,
                             RegistryProperties properties) {
  MutexLock lock(mutex_);
  records_.push_back(std::make_shared<Record>(Record{path, providerClass, std::move(properties)}));
}

void FakeDeviceRegistry::setFirmwareVariable(const std::string& name, RegistryValue value) {
  MutexLock lock(mutex_);
  for (auto& record : records_) {
    if (record->path != kFirmwareVariables) continue;
    Record changed = *record;
    changed.properties[name] = std::move(value);
    record = std::make_shared<Record>(std::move(changed));
    return;
  }
  records_.push_back(
      std::make_shared<Record>(Record{kFirmwareVariables, "", {{name, std::move(value)}}}));
}

void FakeDeviceRegistry::setUnreachable(bool unreachable) {
  MutexLock lock(mutex_);
  unreachable_ = unreachable;
}

void FakeDeviceRegistry::spoilNextPasses(std::size_t count) {
  MutexLock lock(mutex_);
  spoiledPasses_ = count;
}

std::vector<RegistryMatch> FakeDeviceRegistry::matches() const {
  MutexLock lock(mutex_);
  return matches_;
}

std::size_t FakeDeviceRegistry::resets() const {
  MutexLock lock(mutex_);
  return resets_;
}

std::unique_ptr<RegistryObject> FakeDeviceRegistry::objectAtPath(const std::string& path) {
  MutexLock lock(mutex_);
  for (const auto& record : records_) {
    if (record->path == path) return std::make_unique<Object>(record);
  }
  return nullptr;
}

std::unique_ptr<RegistryObject> FakeDeviceRegistry::matchingObject(const RegistryMatch& match) {
  {
    MutexLock lock(mutex_);
    matches_.push_back(match);
  }
  const auto records = matching(match);
  if (records.empty()) return nullptr;
  return std::make_unique<Object>(records.front());
}

std::unique_ptr<RegistryIterator> FakeDeviceRegistry::matchingObjects(const RegistryMatch& match) {
  {
    MutexLock lock(mutex_);
    matches_.push_back(match);
    if (unreachable_) return nullptr;
  }
  return std::make_unique<Iterator>(*this, match);
}

namespace {

bool sameValue(const RegistryValue& one, const RegistryValue& other) {
  const auto* oneData = std::get_if<QSData>(&one);
  const auto* otherData = std::get_if<QSData>(&other);
  if (oneData != nullptr && otherData != nullptr) return oneData->text() == otherData->text();
  const auto* oneText = std::get_if<std::string>(&one);
  const auto* otherText = std::get_if<std::string>(&other);
  if (oneText != nullptr && otherText != nullptr) return *oneText == *otherText;
  const auto* oneNumber = std::get_if<std::int64_t>(&one);
  const auto* otherNumber = std::get_if<std::int64_t>(&other);
  return oneNumber != nullptr && otherNumber != nullptr && *oneNumber == *otherNumber;
}

}  // namespace

std::vector<std::shared_ptr<const FakeDeviceRegistry::Record>> FakeDeviceRegistry::matching(
    const RegistryMatch& match) {
  MutexLock lock(mutex_);
  std::vector<std::shared_ptr<const Record>> found;
  for (const auto& record : records_) {
    if (record->providerClass != match.providerClass) continue;
    if (!match.property.empty()) {
      const auto property = record->properties.find(match.property);
      if (property == record->properties.end() || !sameValue(property->second, match.value)) {
        continue;
      }
    }
    found.push_back(record);
  }
  return found;
}

}  // namespace quillsift
