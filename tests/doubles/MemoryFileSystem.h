#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/Mutex.h"

namespace quillsift {

// One file, link or directory. Change it before the code under test sees it, or from the same
// thread.
struct MemoryFile {
  FileMetadata metadata;
  std::string content;  // a link's target
  std::map<std::string, QSData> extendedAttributes;
  std::uint64_t mountFlags = kMountLocal;

  // An errno value makes the operation fail with it.
  int openError = 0;
  int metadataError = 0;
  int mountFlagsError = 0;
  int readError = 0;
  int mapError = 0;
  int readLinkError = 0;

  // What the file holds by the time it is read, when that is not what the metadata say.
  void shrinkTo(std::size_t length) { content.resize(length); }
  // Sets content and length together.
  void write(std::string newContent);
};

// Files in memory, every one local, fixed, owned by 0:0, mode 0644, with blocks of 4096 bytes
// until the test says otherwise. An open file stays itself when its path is given to another.
class MemoryFileSystem : public FileSystem {
 public:
  // What the code under test did, for example {"open", "/a", 1} or {"read", "/a", 4096}. The
  // number: followLinks for open, closeOnRelease for adopt, the bytes asked for in read, readLink
  // and map.
  struct Operation {
    std::string name;
    std::string path;
    std::uint64_t number = 0;

    bool operator==(const Operation&) const = default;
  };

  MemoryFileSystem();

  // Directories on the way are there by themselves. Each replaces what was at the path.
  std::shared_ptr<MemoryFile> addFile(const std::string& path, std::string content);
  std::shared_ptr<MemoryFile> addDirectory(const std::string& path);
  std::shared_ptr<MemoryFile> addLink(const std::string& path, const std::string& target);
  void remove(const std::string& path);
  // Opening this path fails with an errno value, whether it is there or not.
  void failOpen(const std::string& path, int code);
  // What adopt gives for a descriptor number.
  void addDescriptor(int descriptor, std::shared_ptr<MemoryFile> file);
  // entryNames ends before this entry, as if it could not be read.
  void breakDirectoryAt(const std::string& path);

  std::vector<Operation> operations() const;
  std::size_t openHandles() const;
  std::size_t mappings() const;  // that still have a reader

  std::unique_ptr<FileHandle> open(const std::string& path, bool followLinks) override;
  std::unique_ptr<FileHandle> adopt(int descriptor, bool closeOnRelease) override;
  bool exists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  std::vector<std::string> entryNames(const std::string& directory) override;
  std::optional<QSData> readWholeFile(const std::string& path, QSError* error) override;

 private:
  class Handle;
  struct Record;

  std::shared_ptr<MemoryFile> add(const std::string& path, std::uint32_t objectType,
                                  std::uint32_t typeBits, std::string content);
  std::shared_ptr<MemoryFile> find(std::string path, bool followLinks) const QS_REQUIRES(mutex_);
  bool hasEntriesBelow(const std::string& path) const QS_REQUIRES(mutex_);

  // Shared with the handles and mappings, which may live on.
  const std::shared_ptr<Record> record_;
  mutable Mutex mutex_;
  std::map<std::string, std::shared_ptr<MemoryFile>> files_ QS_GUARDED_BY(mutex_);
  std::map<int, std::shared_ptr<MemoryFile>> descriptors_ QS_GUARDED_BY(mutex_);
  std::map<std::string, int> openFailures_ QS_GUARDED_BY(mutex_);
  std::set<std::string> brokenEntries_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
