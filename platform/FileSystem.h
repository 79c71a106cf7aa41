#pragma once

#include <time.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/QSData.h"
#include "platform/QSError.h"

namespace quillsift {

// What can stand in a file system.
enum ObjectType : std::uint32_t {
  kUnknownType = 0,
  kRegularFileType = 1,
  kDirectoryType = 2,
  kBlockDeviceType = 3,
  kCharacterDeviceType = 4,
  kSymbolicLinkType = 5,
  kSocketType = 6,
  kFIFOType = 7,
};

// A file's metadata, read in one go. A time the file system does not keep is absent.
struct FileMetadata {
  std::uint32_t objectType = kUnknownType;  // an ObjectType
  std::uint32_t ownerID = 0;
  std::uint32_t groupID = 0;
  std::uint32_t accessMask = 0;  // with the file-type bits
  std::uint32_t flags = 0;
  std::uint32_t protectionClass = 0;
  std::uint64_t preferredBlockSize = 0;  // never below 512; 4096 when it is not known
  std::int64_t dataLength = 0;           // 0 for what is neither a regular file nor a link
  std::optional<timespec> creationTime, modificationTime, changeTime, accessTime, addedTime;
};

// An open file. One thread at a time. Every operation that fails returns false (or a negative
// count) with errno set.
class FileHandle {
 public:
  virtual ~FileHandle() = default;

  virtual bool readMetadata(FileMetadata* out) = 0;
  // Mount flags of the volume that holds the file: kMountLocal, kMountRemovable.
  virtual bool readMountFlags(std::uint64_t* out) = 0;
  virtual std::map<std::string, QSData> extendedAttributes() = 0;
  // Reads at the file's current position: the count, which may be short, 0 at the end, -1. Tried
  // again when a signal interrupts it.
  virtual std::int64_t read(std::span<std::byte> buffer) = 0;
  // Bytes of a link's target (a file opened with followLinks false), -1 on failure.
  virtual std::int64_t readLink(std::span<std::byte> buffer) = 0;
  // A private read-only view of the first `length` bytes with sequential read-ahead. It keeps its
  // length whatever happens to the file: pages that are lost, since the file was cut or its disk
  // died, read as zeros in user space, while a system call fails on them (EFAULT). None with errno
  // set on failure, EINVAL for a length of 0.
  // A regular file that cannot be mapped (the kernel's own, or too many mappings) is read into
  // memory instead; one that is shorter than `length` then fails with ENODATA.
  virtual std::optional<QSData> map(std::size_t length) = 0;
};

inline constexpr std::uint64_t kMountLocal = 0x1000;
inline constexpr std::uint64_t kMountRemovable = 0x200;

// Files of the host by absolute path. Any thread.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Opens for reading. Null with errno set on failure.
  virtual std::unique_ptr<FileHandle> open(const std::string& path, bool followLinks) = 0;
  // Takes over a descriptor, or only borrows it.
  virtual std::unique_ptr<FileHandle> adopt(int descriptor, bool closeOnRelease) = 0;
  virtual bool exists(const std::string& path) = 0;
  virtual bool isDirectory(const std::string& path) = 0;
  // Names of a directory's entries, dot files included, "." and ".." left out, links not followed.
  // Stops at the first entry that cannot be read. Empty for what is no readable directory.
  virtual std::vector<std::string> entryNames(const std::string& directory) = 0;
  // A whole file, mapped as by FileHandle::map where that is possible and the volume is local and
  // fixed; empty data for an empty file.
  virtual std::optional<QSData> readWholeFile(const std::string& path, QSError* error) = 0;
};

}  // namespace quillsift
