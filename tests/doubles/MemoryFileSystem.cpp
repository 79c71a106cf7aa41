#include "tests/doubles/MemoryFileSystem.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr int kMostLinks = 40;

template <typename Result>
Result failWith(int code, Result result) {
  errno = code;
  return result;
}

}  // namespace

struct MemoryFileSystem::Record {
  Mutex mutex;
  std::vector<Operation> operations QS_GUARDED_BY(mutex);
  std::size_t openHandles QS_GUARDED_BY(mutex) = 0;
  std::size_t mappings QS_GUARDED_BY(mutex) = 0;

  void add(Operation operation) {
    MutexLock lock(mutex);
    operations.push_back(std::move(operation));
  }
};

void MemoryFile::write(std::string newContent) {
  content = std::move(newContent);
  metadata.dataLength = static_cast<std::int64_t>(content.size());
}

class MemoryFileSystem::Handle : public FileHandle {
 public:
  Handle(std::shared_ptr<Record> record, std::string path, std::shared_ptr<MemoryFile> file)
      : record_(std::move(record)), path_(std::move(path)), file_(std::move(file)) {
    MutexLock lock(record_->mutex);
    ++record_->openHandles;
  }
  ~Handle() override {
    MutexLock lock(record_->mutex);
    --record_->openHandles;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  bool readMetadata(FileMetadata* out) override {
    record_->add({"readMetadata", path_});
    if (file_->metadataError != 0) return failWith(file_->metadataError, false);
    *out = file_->metadata;
    return true;
  }

  bool readMountFlags(std::uint64_t* out) override {
    record_->add({"readMountFlags", path_});
    if (file_->mountFlagsError != 0) return failWith(file_->mountFlagsError, false);
    *out = file_->mountFlags;
    return true;
  }

  std::map<std::string, QSData> extendedAttributes() override {
    record_->add({"extendedAttributes", path_});
    return file_->extendedAttributes;
  }

  std::int64_t read(std::span<std::byte> buffer) override {
    record_->add({"read", path_, buffer.size()});
    if (file_->readError != 0) return failWith(file_->readError, std::int64_t{-1});
    const std::size_t start = std::min(position_, file_->content.size());
    const std::size_t count = std::min(buffer.size(), file_->content.size() - start);
    std::memcpy(buffer.data(), file_->content.data() + start, count);
    position_ = start + count;
    return static_cast<std::int64_t>(count);
  }

  std::int64_t readLink(std::span<std::byte> buffer) override {
    record_->add({"readLink", path_, buffer.size()});
    if (file_->readLinkError != 0) return failWith(file_->readLinkError, std::int64_t{-1});
    const std::size_t count = std::min(buffer.size(), file_->content.size());
    std::memcpy(buffer.data(), file_->content.data(), count);
    return static_cast<std::int64_t>(count);
  }

  std::optional<QSData> map(std::size_t length) override {
    record_->add({"map", path_, length});
    if (file_->mapError != 0) return failWith(file_->mapError, std::nullopt);
    if (length == 0) return failWith(EINVAL, std::nullopt);
    // Lost pages read as zeros.
    auto bytes = std::make_unique<std::string>(file_->content);
    bytes->resize(length);
    const auto view = std::as_bytes(std::span(*bytes));
    {
      MutexLock lock(record_->mutex);
      ++record_->mappings;
    }
    const std::shared_ptr<const std::string> storage(bytes.release(),
                                                     [record = record_](const std::string* mapped) {
                                                       delete mapped;
                                                       MutexLock lock(record->mutex);
                                                       --record->mappings;
                                                     });
    return QSData(storage, view);
  }

 private:
  const std::shared_ptr<Record> record_;
  const std::string path_;
  const std::shared_ptr<MemoryFile> file_;
  std::size_t position_ = 0;
};

MemoryFileSystem::MemoryFileSystem() : record_(std::make_shared<Record>()) {}

std::shared_ptr<MemoryFile> MemoryFileSystem::add(const std::string& path, std::uint32_t objectType,
                                                  std::uint32_t typeBits, std::string content) {
  auto file = std::make_shared<MemoryFile>();
  file->metadata.objectType = objectType;
  file->metadata.accessMask = typeBits | 0644;
  file->metadata.preferredBlockSize = 4096;
  file->write(std::move(content));
  MutexLock lock(mutex_);
  files_[path] = file;
  return file;
}

std::shared_ptr<MemoryFile> MemoryFileSystem::addFile(const std::string& path,
                                                      std::string content) {
  return add(path, 1, S_IFREG, std::move(content));
}

std::shared_ptr<MemoryFile> MemoryFileSystem::addDirectory(const std::string& path) {
  return add(path, 2, S_IFDIR, "");
}

std::shared_ptr<MemoryFile> MemoryFileSystem::addLink(const std::string& path,
                                                      const std::string& target) {
  return add(path, 5, S_IFLNK, target);
}

void MemoryFileSystem::remove(const std::string& path) {
  MutexLock lock(mutex_);
  files_.erase(path);
}

void MemoryFileSystem::failOpen(const std::string& path, int code) {
  MutexLock lock(mutex_);
  openFailures_[path] = code;
}

void MemoryFileSystem::addDescriptor(int descriptor, std::shared_ptr<MemoryFile> file) {
  MutexLock lock(mutex_);
  descriptors_[descriptor] = std::move(file);
}

void MemoryFileSystem::breakDirectoryAt(const std::string& path) {
  MutexLock lock(mutex_);
  brokenEntries_.insert(path);
}

std::vector<MemoryFileSystem::Operation> MemoryFileSystem::operations() const {
  MutexLock lock(record_->mutex);
  return record_->operations;
}

std::size_t MemoryFileSystem::openHandles() const {
  MutexLock lock(record_->mutex);
  return record_->openHandles;
}

std::size_t MemoryFileSystem::mappings() const {
  MutexLock lock(record_->mutex);
  return record_->mappings;
}

bool MemoryFileSystem::hasEntriesBelow(const std::string& path) const {
  const std::string prefix = joinedPath(path, "");
  const auto first = files_.lower_bound(prefix);
  return first != files_.end() && first->first.starts_with(prefix);
}

std::shared_ptr<MemoryFile> MemoryFileSystem::find(std::string path, bool followLinks) const {
  for (int links = 0; links < kMostLinks; ++links) {
    const auto file = files_.find(path);
    if (file == files_.end()) return failWith(ENOENT, nullptr);
    if (file->second->metadata.objectType != 5 || !followLinks) return file->second;
    const std::string& target = file->second->content;
    path = target.starts_with("/") ? target : joinedPath(path.substr(0, path.rfind('/')), target);
  }
  return failWith(ELOOP, nullptr);
}

std::unique_ptr<FileHandle> MemoryFileSystem::open(const std::string& path, bool followLinks) {
  record_->add({"open", path, followLinks ? 1U : 0U});
  MutexLock lock(mutex_);
  const auto failure = openFailures_.find(path);
  if (failure != openFailures_.end()) return failWith(failure->second, nullptr);
  const std::shared_ptr<MemoryFile> file = find(path, followLinks);
  if (!file) return nullptr;
  if (file->openError != 0) return failWith(file->openError, nullptr);
  return std::make_unique<Handle>(record_, path, file);
}

std::unique_ptr<FileHandle> MemoryFileSystem::adopt(int descriptor, bool closeOnRelease) {
  const std::string path = "descriptor " + std::to_string(descriptor);
  record_->add({"adopt", path, closeOnRelease ? 1U : 0U});
  MutexLock lock(mutex_);
  const auto file = descriptors_.find(descriptor);
  if (file == descriptors_.end()) return failWith(EBADF, nullptr);
  return std::make_unique<Handle>(record_, path, file->second);
}

bool MemoryFileSystem::exists(const std::string& path) {
  MutexLock lock(mutex_);
  return find(path, true) != nullptr || hasEntriesBelow(path);
}

bool MemoryFileSystem::isDirectory(const std::string& path) {
  MutexLock lock(mutex_);
  const std::shared_ptr<MemoryFile> file = find(path, true);
  return file ? file->metadata.objectType == 2 : hasEntriesBelow(path);
}

std::vector<std::string> MemoryFileSystem::entryNames(const std::string& directory) {
  record_->add({"entryNames", directory});
  MutexLock lock(mutex_);
  const std::string prefix = joinedPath(directory, "");
  std::vector<std::string> names;
  for (auto file = files_.lower_bound(prefix);
       file != files_.end() && file->first.starts_with(prefix); ++file) {
    const std::string below = file->first.substr(prefix.size());
    const std::string name = below.substr(0, below.find('/'));
    if (name.empty()) continue;
    if (brokenEntries_.contains(prefix + name)) break;
    if (names.empty() || names.back() != name) names.push_back(name);
  }
  return names;
}

std::optional<QSData> MemoryFileSystem::readWholeFile(const std::string& path, QSError* error) {
  const std::unique_ptr<FileHandle> handle = open(path, true);
  if (!handle) {
    setError(error, QSError::posix(errno, path));
    return std::nullopt;
  }
  MutexLock lock(mutex_);
  const std::shared_ptr<MemoryFile> file = find(path, true);
  if (file->readError != 0) {
    setError(error, QSError::posix(file->readError, path));
    return std::nullopt;
  }
  return QSData(file->content);
}

}  // namespace quillsift
