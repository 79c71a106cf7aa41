#include "tests/doubles/FakeMounts.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace quillsift {

namespace {

// The text that the pointer at the record's start leads to.
std::string deviceOf(std::span<const std::byte> record) {
  const char* device = nullptr;
  if (record.size() < sizeof device) return "";
  std::memcpy(&device, record.data(), sizeof device);
  return device != nullptr ? device : "";
}

}  // namespace

void FakeMounts::add(const std::string& mountedFrom, const std::string& mountedOn) {
  MutexLock lock(mutex_);
  table_.push_back({mountedFrom, mountedOn});
}

void FakeMounts::remove(const std::string& mountedOn) {
  MutexLock lock(mutex_);
  std::erase_if(table_, [&](const MountTableEntry& entry) { return entry.mountedOn == mountedOn; });
}

void FakeMounts::fail(const std::string& operation, const std::string& pathOrDevice, int code) {
  MutexLock lock(mutex_);
  failures_[operation][pathOrDevice] = code;
}

void FakeMounts::onCall(std::function<void(const Call& call)> hook) {
  MutexLock lock(mutex_);
  onCall_ = std::move(hook);
}

std::vector<FakeMounts::Call> FakeMounts::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::size_t FakeMounts::tableReads() const {
  MutexLock lock(mutex_);
  return tableReads_;
}

int FakeMounts::begin(const Call& call) {
  MutexLock lock(mutex_);
  const auto hook = onCall_;
  lock.unlock();
  if (hook) hook(call);

  lock.lock();
  calls_.push_back(call);
  std::map<std::string, int>& codes = failures_[call.operation];
  const auto byPath = codes.find(call.path);
  const auto byDevice = codes.find(call.device);
  int code = byPath == codes.end() ? 0 : byPath->second;
  if (code == 0 && byDevice != codes.end()) code = byDevice->second;
  return code;
}

std::vector<MountTableEntry> FakeMounts::table() {
  MutexLock lock(mutex_);
  ++tableReads_;
  return table_;
}

bool FakeMounts::makeDirectory(const std::string& path, mode_t mode) {
  Call call{"makeDirectory", path};
  call.mode = mode;
  const int code = begin(call);
  errno = code;
  return code == 0;
}

bool FakeMounts::mount(const std::string& type, const std::string& directory, MountFlags flags,
                       std::span<const std::byte> record) {
  Call call{"mount", directory};
  call.type = type;
  call.device = deviceOf(record);
  call.record.assign(record.begin(), record.end());
  call.flags = flags;
  const int code = begin(call);
  if (code == 0) add(call.device, directory);
  errno = code;
  return code == 0;
}

bool FakeMounts::unmount(const std::string& mountPoint, bool force) {
  Call call{"unmount", mountPoint};
  call.force = force;
  int code = begin(call);
  MutexLock lock(mutex_);
  if (code == 0) {
    const auto isHere = [&](const MountTableEntry& entry) { return entry.mountedOn == mountPoint; };
    if (std::erase_if(table_, isHere) == 0) code = EINVAL;
  }
  errno = code;
  return code == 0;
}

}  // namespace quillsift
