#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/DeviceRegistry.h"
#include "platform/Mutex.h"

namespace quillsift {

using RegistryProperties = std::map<std::string, RegistryValue>;

// A registry of objects that the test puts in. Any thread.
class FakeDeviceRegistry : public DeviceRegistry {
 public:
  // An object of a class, at a path (empty: none); the order is that of a pass.
  void add(const std::string& path, const std::string& providerClass,
           RegistryProperties properties);
  // One firmware variable.
  void setFirmwareVariable(const std::string& name, RegistryValue value);
  // matchingObjects gives nothing at all.
  void setUnreachable(bool unreachable);
  // The next `count` passes find that the registry changed meanwhile.
  void spoilNextPasses(std::size_t count);
  std::vector<RegistryMatch> matches() const;  // asked for so far
  std::size_t resets() const;

  std::unique_ptr<RegistryObject> objectAtPath(const std::string& path) override;
  std::unique_ptr<RegistryObject> matchingObject(const RegistryMatch& match) override;
  std::unique_ptr<RegistryIterator> matchingObjects(const RegistryMatch& match) override;

 private:
  class Object;
  class Iterator;
  struct Record {
    std::string path;
    std::string providerClass;
    RegistryProperties properties;
  };

  std::vector<std::shared_ptr<const Record>> matching(const RegistryMatch& match);

  mutable Mutex mutex_;
  std::vector<std::shared_ptr<const Record>> records_ QS_GUARDED_BY(mutex_);
  std::vector<RegistryMatch> matches_ QS_GUARDED_BY(mutex_);
  bool unreachable_ QS_GUARDED_BY(mutex_) = false;
  std::size_t spoiledPasses_ QS_GUARDED_BY(mutex_) = 0;
  std::size_t resets_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
