#include "platform/linux/LinuxDeviceRegistry.h"

#include <optional>
#include <utility>
#include <vector>

#include "platform/linux/FileReading.h"
#include "platform/linux/FirmwareVariables.h"

namespace quillsift {

namespace {

constexpr const char* kFirmwareVariables = "DrDeviceTree:/options";
constexpr const char* kMediaClass = "DrMedia";
constexpr const char* kVolumeClass = "VantorVellumVolume";
constexpr const char* kEventCounter = "/sys/kernel/uevent_seqnum";

class DeviceObject : public RegistryObject {
 public:
  DeviceObject(std::shared_ptr<BlockDevices> devices, BlockDevice device)
      : devices_(std::move(devices)), device_(std::move(device)) {}

  std::optional<RegistryValue> property(const std::string& name) override {
    if (name == "BSD Name") return device_.name;
    if (name == "UUID") {
      const VolumeFacts& known = facts();
      // Who made the file system decides what it says; it becomes a part of file names.
      const bool isName = known.uuid().find('/') == std::string::npos && known.uuid() != "..";
      if (isName && !known.uuid().empty()) return known.uuid();
    }
    if (name == "RoleValue") {
      if (const auto role = volumeRole(facts())) return std::int64_t{*role};
    }
    return std::nullopt;
  }

  bool isOfClass(const std::string& name) {
    return name == kMediaClass || (name == kVolumeClass && facts().holdsFileSystem());
  }

 private:
  // Looks at the device when, and only when, somebody wants to know and nothing is recorded.
  const VolumeFacts& facts() {
    if (!device_.recorded && device_.hasMedium) device_.recorded = devices_->probe(device_);
    if (!device_.recorded) device_.recorded.emplace();
    return *device_.recorded;
  }

  const std::shared_ptr<BlockDevices> devices_;
  BlockDevice device_;
};

bool sameValue(const RegistryValue& one, const RegistryValue& other) {
  if (const auto* text = std::get_if<std::string>(&one)) {
    const auto* otherText = std::get_if<std::string>(&other);
    return otherText != nullptr && *text == *otherText;
  }
  // No property of a device is bytes.
  const auto* number = std::get_if<std::int64_t>(&one);
  const auto* otherNumber = std::get_if<std::int64_t>(&other);
  return number != nullptr && otherNumber != nullptr && *number == *otherNumber;
}

bool matches(DeviceObject& object, const RegistryMatch& match) {
  if (!object.isOfClass(match.providerClass)) return false;
  if (match.property.empty()) return true;
  const auto value = object.property(match.property);
  return value && sameValue(*value, match.value);
}

// A pass over the devices there were at its beginning.
class DeviceIterator final : public RegistryIterator {
 public:
  DeviceIterator(std::shared_ptr<const PlatformTree> tree, std::shared_ptr<BlockDevices> devices,
                 RegistryMatch match)
      : tree_(std::move(tree)), devices_(std::move(devices)), match_(std::move(match)) {
    reset();
  }

  bool canBeAsked() const { return names_.has_value(); }

  std::unique_ptr<RegistryObject> next() override {
    while (names_ && position_ < names_->size()) {
      auto device = devices_->device((*names_)[position_++]);
      if (!device) continue;
      auto object = std::make_unique<DeviceObject>(devices_, std::move(*device));
      if (matches(*object, match_)) return object;
    }
    return nullptr;
  }

  void reset() override {
    eventsBefore_ = events();
    names_ = devices_->names();
    position_ = 0;
  }

  bool isValid() override { return names_ && events() == eventsBefore_; }

 private:
  // Empty, and so the same for ever, where the kernel does not count.
  std::string events() const {
    const auto path = tree_->resolve(kEventCounter);
    const auto counter = path ? readSmallFile(*path) : std::nullopt;
    return counter ? std::string(counter->text()) : "";
  }

  const std::shared_ptr<const PlatformTree> tree_;
  const std::shared_ptr<BlockDevices> devices_;
  const RegistryMatch match_;
  std::string eventsBefore_;
  std::optional<std::vector<std::string>> names_;
  std::size_t position_ = 0;
};

}  // namespace

LinuxDeviceRegistry::LinuxDeviceRegistry(std::shared_ptr<const PlatformTree> tree,
                                         std::unique_ptr<BlockDevices> devices,
                                         ProcessLauncher& launcher)
    : tree_(std::move(tree)), devices_(std::move(devices)), launcher_(launcher) {}

std::unique_ptr<RegistryObject> LinuxDeviceRegistry::objectAtPath(const std::string& path) {
  if (path != kFirmwareVariables) return nullptr;
  return firmwareVariables(*tree_, launcher_);
}

std::unique_ptr<RegistryObject> LinuxDeviceRegistry::matchingObject(const RegistryMatch& match) {
  return DeviceIterator(tree_, devices_, match).next();
}

std::unique_ptr<RegistryIterator> LinuxDeviceRegistry::matchingObjects(const RegistryMatch& match) {
  auto iterator = std::make_unique<DeviceIterator>(tree_, devices_, match);
  if (!iterator->canBeAsked()) return nullptr;
  return iterator;
}

}  // namespace quillsift
