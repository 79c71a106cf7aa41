#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "platform/Mounts.h"
#include "platform/Mutex.h"

namespace quillsift {

// A mount table in memory. What is mounted joins it at the end, what is unmounted leaves it, and
// failures come on demand. Any thread.
class FakeMounts : public Mounts {
 public:
  // What the code under test did, failed calls included.
  struct Call {
    std::string operation;  // "makeDirectory", "mount", "unmount"
    std::string path;
    std::string type{};    // of a mount, as the three below
    std::string device{};  // that the record points to
    std::vector<std::byte> record{};
    MountFlags flags = MountFlags::none;
    mode_t mode = 0;     // of a directory
    bool force = false;  // of an unmount
  };

  void add(const std::string& mountedFrom, const std::string& mountedOn);
  void remove(const std::string& mountedOn);
  // An operation on this path (for mount also: on this device) fails with an errno value; 0 takes
  // that back. A forced unmount fails as well.
  void fail(const std::string& operation, const std::string& pathOrDevice, int code);
  // Runs before each call, outside all locks.
  void onCall(std::function<void(const Call& call)> hook);
  std::vector<Call> calls() const;
  std::size_t tableReads() const;

  std::vector<MountTableEntry> table() override;
  bool makeDirectory(const std::string& path, mode_t mode) override;
  bool mount(const std::string& type, const std::string& directory, MountFlags flags,
             std::span<const std::byte> record) override;
  bool unmount(const std::string& mountPoint, bool force) override;

 private:
  // Records the call; the errno value it is to fail with, or 0.
  int begin(const Call& call);

  mutable Mutex mutex_;
  std::vector<MountTableEntry> table_ QS_GUARDED_BY(mutex_);
  std::map<std::string, std::map<std::string, int>> failures_ QS_GUARDED_BY(mutex_);
  std::function<void(const Call&)> onCall_ QS_GUARDED_BY(mutex_);
  std::vector<Call> calls_ QS_GUARDED_BY(mutex_);
  std::size_t tableReads_ QS_GUARDED_BY(mutex_) = 0;
};

}  // namespace quillsift
