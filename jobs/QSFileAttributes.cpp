#include "jobs/QSFileAttributes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <utility>

#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr std::uint32_t kFileTypeBits = 0xF000;
constexpr const char* kCompleteProtection = "QSFileProtectionComplete";
// Below what any file system reports. Reading in blocks of nothing would never end.
constexpr std::uint64_t kSmallestBlock = 512;

// Memory for `size` bytes; null with errno set when there is none.
std::shared_ptr<std::byte> allocate(std::size_t size, std::size_t alignment) {
  void* memory = nullptr;
  // Never for nothing: that may give null, which is no failure here.
  const int result = ::posix_memalign(&memory, alignment, std::max<std::size_t>(size, 1));
  if (result != 0) {
    errno = result;
    return nullptr;
  }
  return {static_cast<std::byte*>(memory), [](std::byte* bytes) { std::free(bytes); }};
}

std::size_t pageSize() {
  return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

void setIfKept(const std::optional<timespec>& time, std::optional<QSTime>* out) {
  if (time) *out = QSTime(*time);
}

}  // namespace

QSFileAttributes::QSFileAttributes(std::int64_t options, std::optional<std::string> path)
    : optionsMask_(options), filePath_(std::move(path)) {}

std::shared_ptr<QSFileAttributes> QSFileAttributes::fileAttributesForPath(const std::string& path,
                                                                          std::int64_t options,
                                                                          QSError* error) {
  std::shared_ptr<QSFileAttributes> attributes(new QSFileAttributes(options, path));
  const std::shared_ptr<FileHandle> handle = attributes->_fileHandleReturningError(error);
  if (!handle) return nullptr;
  if ((options & QSFileAttributesKeepHandleOpen) != 0) attributes->internalFileHandle_ = handle;
  if (!attributes->_readAttributesFromHandle(*handle, error)) return nullptr;
  return attributes;
}

std::shared_ptr<QSFileAttributes> QSFileAttributes::fileAttributesForHandle(
    std::shared_ptr<FileHandle> handle, std::int64_t options, QSError* error) {
  if ((options & QSFileAttributesKeepHandleOpen) != 0) {
    throw std::invalid_argument(
        "QSFileAttributesKeepHandleOpen cannot be passed when using initWithFileDescriptor.");
  }
  std::shared_ptr<QSFileAttributes> attributes(new QSFileAttributes(options, std::nullopt));
  attributes->internalFileHandle_ = std::move(handle);
  if (!attributes->_readAttributesFromHandle(*attributes->internalFileHandle_, error)) {
    return nullptr;
  }
  return attributes;
}

// Only attributes made from a path get here without a handle.
std::shared_ptr<FileHandle> QSFileAttributes::_fileHandleReturningError(QSError* error) {
  if (internalFileHandle_) return internalFileHandle_;
  const bool followLinks = (optionsMask_ & QSFileAttributesOpenSymbolicLink) == 0;
  std::shared_ptr<FileHandle> handle =
      Platform::current().fileSystem->open(*filePath_, followLinks);
  if (!handle) storeErrno(error);
  return handle;
}

// Stores nothing unless it can store everything. A time that the file system does not keep leaves
// its field as it was.
bool QSFileAttributes::_readAttributesFromHandle(FileHandle& handle, QSError* error) {
  FileMetadata metadata;
  std::uint64_t mountFlags = 0;
  if (!handle.readMetadata(&metadata) || !handle.readMountFlags(&mountFlags)) {
    storeErrno(error);
    return false;
  }
  extendedAttributes_ = handle.extendedAttributes();
  fileType_ = metadata.objectType;
  fileUID_ = metadata.ownerID;
  fileGID_ = metadata.groupID;
  fileAccessMask_ = metadata.accessMask & ~kFileTypeBits;
  fileFlags_ = metadata.flags;
  fileProtectionType_ = _protectionClassNameForValue(metadata.protectionClass);
  fileSize_ = metadata.dataLength;
  optimalBlockSize_ = metadata.preferredBlockSize;
  fileMountFlags_ = mountFlags;
  setIfKept(metadata.creationTime, &fileCreationTime_);
  setIfKept(metadata.modificationTime, &fileModificationTime_);
  setIfKept(metadata.changeTime, &fileChangeTime_);
  setIfKept(metadata.accessTime, &fileAccessTime_);
  setIfKept(metadata.addedTime, &fileAddedTime_);
  return true;
}

std::optional<std::string> QSFileAttributes::_protectionClassNameForValue(std::uint32_t value) {
  switch (value) {
    case 0:
      return std::nullopt;
    case 1:
      return kCompleteProtection;
    case 2:
      return "QSFileProtectionCompleteUnlessOpen";
    case 3:
      return "QSFileProtectionCompleteUntilFirstUserAuthentication";
    case 4:
      return "QSFileProtectionNone";
    default:
      return "QSFileProtectionUnknown";
  }
}

std::optional<QSData> QSFileAttributes::readFileReturningDataWithError(QSError* error) {
  const std::shared_ptr<FileHandle> handle = _fileHandleReturningError(error);
  if (!handle) return std::nullopt;
  if (!internalFileHandle_ && !_readAttributesFromHandle(*handle, error)) return std::nullopt;
  std::optional<QSData> data;
  if (fileType_ == kSymbolicLinkType) {
    data = readLinkTarget(*handle);
  } else if (mayBeMapped()) {
    data = handle->map(static_cast<std::size_t>(fileSize_));
  } else {
    data = readInBlocks(*handle);
  }
  if (!data) storeErrno(error);
  return data;
}

// A volume that may vanish with its pages, or a key that may, is no ground for a mapping.
bool QSFileAttributes::mayBeMapped() const {
  return (fileMountFlags_ & kMountLocal) != 0 && (fileMountFlags_ & kMountRemovable) == 0 &&
         fileProtectionType_ != kCompleteProtection;
}

std::optional<QSData> QSFileAttributes::readInBlocks(FileHandle& handle) const {
  const auto size = static_cast<std::size_t>(fileSize_);
  const std::shared_ptr<std::byte> bytes = allocate(size, pageSize());
  if (!bytes) return std::nullopt;
  const std::span<std::byte> buffer(bytes.get(), size);
  const std::size_t block = std::max(optimalBlockSize_, kSmallestBlock);
  for (std::size_t position = 0; position < size;) {
    const std::span<std::byte> chunk = buffer.subspan(position, std::min(size - position, block));
    const std::int64_t count = handle.read(chunk);
    if (count != static_cast<std::int64_t>(chunk.size())) {
      errno = ENODATA;
      return std::nullopt;
    }
    position += chunk.size();
  }
  return QSData(bytes, buffer);
}

std::optional<QSData> QSFileAttributes::readLinkTarget(FileHandle& handle) const {
  const auto size = static_cast<std::size_t>(fileSize_);
  const std::shared_ptr<std::byte> bytes = allocate(size, alignof(std::max_align_t));
  if (!bytes) return std::nullopt;
  const std::span<std::byte> buffer(bytes.get(), size);
  const std::int64_t count = handle.readLink(buffer);
  if (count < 0) return std::nullopt;
  if (count != fileSize_) {
    errno = EAGAIN;
    return std::nullopt;
  }
  return QSData(bytes, buffer);
}

void QSFileAttributes::storeErrno(QSError* error) const {
  setError(error, QSError::posix(errno, filePath_));
}

}  // namespace quillsift
