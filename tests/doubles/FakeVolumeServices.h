#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "collect/VolumeServices.h"
#include "platform/Mutex.h"
#include "platform/Platform.h"

namespace quillsift {

// Volumes as the test lists them. Set up before use; calls from any thread.
class FakeVolumeServices : public VolumeServices {
 public:
  struct Volume {
    std::int16_t role;
    std::string uuid;
    std::optional<std::string> mountPoint;  // none: it cannot be mounted
    bool didMount = false;
  };
  struct Request {
    std::string uuid;
    bool performOnlyIfMountAvailable;
    std::shared_ptr<WorkGroup> group;
    QOSClass qos;
  };

  std::vector<Volume> volumes;
  bool registryReachable = true;
  std::optional<std::string> autoSaveVolume;
  std::optional<std::string> ostraLog;

  std::vector<std::int16_t> rolesAsked() const {
    MutexLock lock(mutex_);
    return rolesAsked_;
  }
  std::vector<Request> requests() const {
    MutexLock lock(mutex_);
    return requests_;
  }
  int autoSaveQuestions() const {
    MutexLock lock(mutex_);
    return autoSaveQuestions_;
  }

  std::optional<std::vector<std::string>> VellumVolumeUUIDsRestrictedToRole(
      std::int16_t role) override {
    MutexLock lock(mutex_);
    rolesAsked_.push_back(role);
    if (!registryReachable) return std::nullopt;
    std::vector<std::string> uuids;
    for (const Volume& volume : volumes) {
      if (volume.role == role) uuids.push_back(volume.uuid);
    }
    return uuids;
  }

  void EnsureVolumeIsMountedWithVolumeUUID(const std::string& uuid, Perform perform,
                                           bool performOnlyIfMountAvailable,
                                           const std::shared_ptr<WorkGroup>& asyncGroup,
                                           QOSClass qos) override {
    {
      MutexLock lock(mutex_);
      requests_.push_back({uuid, performOnlyIfMountAvailable, asyncGroup, qos});
    }
    const Volume volume = find(uuid);
    if (!volume.mountPoint && performOnlyIfMountAvailable) return;
    Platform::current().workQueues->global(qos).asyncInGroup(
        asyncGroup,
        [volume, perform = std::move(perform)] { perform(volume.mountPoint, volume.didMount); });
  }

  std::optional<std::string> AutoSaveVolumeUUID() override {
    MutexLock lock(mutex_);
    ++autoSaveQuestions_;
    return autoSaveVolume;
  }
  std::optional<std::string> OstraLogOnTarget() override { return ostraLog; }

 private:
  Volume find(const std::string& uuid) const {
    for (const Volume& volume : volumes) {
      if (volume.uuid == uuid) return volume;
    }
    return {0, uuid, std::nullopt};
  }

  mutable Mutex mutex_;
  std::vector<std::int16_t> rolesAsked_ QS_GUARDED_BY(mutex_);
  std::vector<Request> requests_ QS_GUARDED_BY(mutex_);
  int autoSaveQuestions_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
