#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "platform/QSData.h"

namespace quillsift {

// A property as the registry types it: text, bytes, or a number.
using RegistryValue = std::variant<std::string, QSData, std::int64_t>;

class RegistryObject {
 public:
  virtual ~RegistryObject() = default;

  // None when the object has no such property or is gone.
  virtual std::optional<RegistryValue> property(const std::string& name) = 0;
};

// A property that is text; none also when it is something else.
inline std::optional<std::string> textProperty(RegistryObject& object, const std::string& name) {
  auto value = object.property(name);
  auto* const text = value ? std::get_if<std::string>(&*value) : nullptr;
  return text == nullptr ? std::nullopt : std::optional(std::move(*text));
}

// What to look for: all objects of a class, or those of them with one property of this value.
struct RegistryMatch {
  std::string providerClass;
  std::string property;  // empty: no restriction
  RegistryValue value;
};

class RegistryIterator {
 public:
  virtual ~RegistryIterator() = default;

  virtual std::unique_ptr<RegistryObject> next() = 0;  // null at the end
  virtual void reset() = 0;
  // False when the registry changed since the last reset, so that a pass may have missed objects.
  virtual bool isValid() = 0;
};

// The host's devices as objects with typed properties. Any thread; an object or an iterator, one
// thread at a time. Whatever looks at a device blocks for as long as that takes: some 12 seconds
// for one that does not answer, and a search looks at one after the other.
class DeviceRegistry {
 public:
  virtual ~DeviceRegistry() = default;

  // The object at a registry path; "DrDeviceTree:/options" holds the firmware variables.
  virtual std::unique_ptr<RegistryObject> objectAtPath(const std::string& path) = 0;
  // The one matching object; null when there is none.
  virtual std::unique_ptr<RegistryObject> matchingObject(const RegistryMatch& match) = 0;
  // All matching objects; null when the registry cannot be asked.
  virtual std::unique_ptr<RegistryIterator> matchingObjects(const RegistryMatch& match) = 0;
};

}  // namespace quillsift
