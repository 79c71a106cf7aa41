#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "jobs/QSTime.h"
#include "platform/FileSystem.h"
#include "platform/QSData.h"
#include "platform/QSError.h"

namespace quillsift {

// Option bits of QSFileAttributes.
enum QSFileAttributesOptions : std::int64_t {
  QSFileAttributesKeepHandleOpen = 1,   // a later read uses the file opened at creation
  QSFileAttributesOpenSymbolicLink = 2  // open a link itself, not its target
};

// A file's metadata, and its whole content. One thread at a time. A time that
// the file system does not keep is absent.
// Every failure is an error of the POSIX domain with the path, or none for a borrowed descriptor.
class QSFileAttributes {
 public:
  QSFileAttributes() = delete;

  // Null and `error` when the file cannot be opened or its metadata not be read.
  static std::shared_ptr<QSFileAttributes> fileAttributesForPath(const std::string& path,
                                                                 std::int64_t options,
                                                                 QSError* error);
  // Works on an open file of the caller. Throws std::invalid_argument for KeepHandleOpen.
  static std::shared_ptr<QSFileAttributes> fileAttributesForHandle(
      std::shared_ptr<FileHandle> handle, std::int64_t options, QSError* error);

  // The whole content: the target's text for a link opened as such. Without a kept handle the file
  // is opened again and its attributes are read anew. Files on local fixed volumes are mapped
  // (empty ones fail with EINVAL); a file that turns out shorter while it is read otherwise fails
  // with ENODATA, a link's target with EAGAIN. None and `error` on failure; the attributes then
  // stay as they were last read.
  std::optional<QSData> readFileReturningDataWithError(QSError* error);

  std::uint32_t fileType() const { return fileType_; }
  std::uint32_t fileUID() const { return fileUID_; }
  std::uint32_t fileGID() const { return fileGID_; }
  std::uint32_t fileAccessMask() const { return fileAccessMask_; }
  std::uint32_t fileFlags() const { return fileFlags_; }
  std::int64_t fileSize() const { return fileSize_; }
  const std::optional<QSTime>& fileCreationTime() const { return fileCreationTime_; }
  const std::optional<QSTime>& fileModificationTime() const { return fileModificationTime_; }
  const std::optional<QSTime>& fileChangeTime() const { return fileChangeTime_; }
  const std::optional<QSTime>& fileAccessTime() const { return fileAccessTime_; }
  const std::optional<QSTime>& fileAddedTime() const { return fileAddedTime_; }
  const std::map<std::string, QSData>& extendedAttributes() const { return extendedAttributes_; }

 private:
  QSFileAttributes(std::int64_t options, std::optional<std::string> path);

  std::shared_ptr<FileHandle> _fileHandleReturningError(QSError* error);
  bool _readAttributesFromHandle(FileHandle& handle, QSError* error);
  static std::optional<std::string> _protectionClassNameForValue(std::uint32_t value);
  bool mayBeMapped() const;
  // None with errno set on failure.
  std::optional<QSData> readInBlocks(FileHandle& handle) const;
  std::optional<QSData> readLinkTarget(FileHandle& handle) const;
  void storeErrno(QSError* error) const;

  std::uint32_t fileType_ = 0;
  std::uint32_t fileUID_ = 0;
  std::uint32_t fileGID_ = 0;
  std::uint32_t fileAccessMask_ = 0;
  std::uint32_t fileFlags_ = 0;
  std::optional<QSTime> fileCreationTime_, fileModificationTime_, fileChangeTime_, fileAccessTime_,
      fileAddedTime_;
  std::int64_t fileSize_ = 0;
  std::map<std::string, QSData> extendedAttributes_;
  const std::int64_t optionsMask_;
  const std::optional<std::string> filePath_;
  std::shared_ptr<FileHandle> internalFileHandle_;
  std::optional<std::string> fileProtectionType_;
  std::uint64_t fileMountFlags_ = 0;
  std::uint64_t optimalBlockSize_ = 0;
};

}  // namespace quillsift
