#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/FileSystem.h"

namespace quillsift {

// An open file: one statx for the metadata, names of extended attributes as the bytes they are.
// Only a regular file has content to read or map; of a link it is the target.
class LinuxFileHandle : public FileHandle {
 public:
  // Takes over `descriptor`, or with `owned` false leaves it open in the end.
  LinuxFileHandle(int descriptor, bool owned);
  ~LinuxFileHandle() override;

  // Opens `path` for reading if it is a regular file or a directory, and anything else (a link that
  // is not followed, a FIFO, a socket, a device) only as a place in the file system, without side
  // effects. Null, with errno set, on failure.
  static std::unique_ptr<LinuxFileHandle> open(const std::string& path, bool followLinks);

  bool readMetadata(FileMetadata* out) override;
  bool readMountFlags(std::uint64_t* out) override;
  std::map<std::string, QSData> extendedAttributes() override;
  std::int64_t read(std::span<std::byte> buffer) override;
  std::int64_t readLink(std::span<std::byte> buffer) override;
  std::optional<QSData> map(std::size_t length) override;
  // The whole content of a regular file that has not been read from yet: mapped if it has a length
  // and lies on a local fixed volume. None with errno set on failure.
  std::optional<QSData> readWhole();

 private:
  LinuxFileHandle(FileDescriptor file, const struct stat& status);

  static std::unique_ptr<LinuxFileHandle> openRegularFile(const std::string& path);

  FileDescriptor file_;
  const bool owned_;
  dev_t device_ = 0;       // on which it lies
  int whyUnreadable_ = 0;  // an errno value; 0: there is content to read
};

}  // namespace quillsift
