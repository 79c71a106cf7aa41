#include "tests/doubles/RecordingOutputFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quillsift {

bool RecordingOutputFiles::begin(Call call) {
  MutexLock lock(mutex_);
  calls_.push_back(call);
  const auto hook = onCall_;
  const auto failure = failures_.find(call.operation);
  const int code = failure == failures_.end() ? 0 : failure->second;
  lock.unlock();
  if (hook) hook(call);
  if (code != 0) errno = code;
  return code == 0;
}

void RecordingOutputFiles::fail(const std::string& operation, int code) {
  MutexLock lock(mutex_);
  failures_[operation] = code;
}

void RecordingOutputFiles::onCall(std::function<void(const Call& call)> hook) {
  MutexLock lock(mutex_);
  onCall_ = std::move(hook);
}

std::vector<RecordingOutputFiles::Call> RecordingOutputFiles::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::vector<std::string> RecordingOutputFiles::operations() const {
  MutexLock lock(mutex_);
  std::vector<std::string> names;
  for (const Call& call : calls_)
    names.push_back(call.operation);
  return names;
}

FileDescriptor RecordingOutputFiles::openForWriting(const std::string& path) {
  if (!begin({.operation = "openForWriting", .path = path})) return {};
  return FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
}

bool RecordingOutputFiles::disableCaching(int descriptor) {
  return begin({.operation = "disableCaching", .descriptor = descriptor});
}

bool RecordingOutputFiles::truncateAtPosition(int descriptor) {
  if (!begin({.operation = "truncateAtPosition", .descriptor = descriptor})) return false;
  const off_t position = ::lseek(descriptor, 0, SEEK_CUR);
  return position >= 0 && ::ftruncate(descriptor, position) == 0;
}

bool RecordingOutputFiles::flush(int descriptor) {
  return begin({.operation = "flush", .descriptor = descriptor}) && ::fsync(descriptor) == 0;
}

bool RecordingOutputFiles::flushToMedium(int descriptor) {
  return begin({.operation = "flushToMedium", .descriptor = descriptor});
}

bool RecordingOutputFiles::leadsToFile(const std::string& path, int descriptor) {
  if (!begin({.operation = "leadsToFile", .path = path, .descriptor = descriptor})) return false;
  struct stat open, found;
  if (::fstat(descriptor, &open) != 0 || ::stat(path.c_str(), &found) != 0) return false;
  if (open.st_dev == found.st_dev && open.st_ino == found.st_ino) return true;
  errno = ESTALE;
  return false;
}

bool RecordingOutputFiles::renameAt(int fromDirectory, const std::string& from, int toDirectory,
                                    const std::string& to) {
  if (!begin({"renameAt", from, to, fromDirectory, toDirectory})) return false;
  return ::renameat(fromDirectory, from.c_str(), toDirectory, to.c_str()) == 0;
}

bool RecordingOutputFiles::flushDirectoryOf(const std::string& path) {
  return begin({.operation = "flushDirectoryOf", .path = path});
}

void RecordingOutputFiles::remove(const std::string& path) {
  if (begin({.operation = "remove", .path = path})) (void)::unlink(path.c_str());
}

}  // namespace quillsift
