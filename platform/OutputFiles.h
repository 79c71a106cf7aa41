#pragma once

#include <string>

#include "platform/FileDescriptor.h"

namespace quillsift {

// What a save does with the file it writes, beyond writing. Paths are the client's: they mean the
// host's directories, and only where the host has no such directory (the mount points that the
// daemon makes below /private/tmp) those of the platform tree. Every operation that can fail
// returns false (or an invalid descriptor) with errno set, and blocks as long as the file system
// does. Any thread.
class OutputFiles {
 public:
  virtual ~OutputFiles() = default;

  // Opens for reading and writing, made with mode 0666 less the umask if absent, never shortened.
  // What stands there and is no file is opened too, but never waited for. A link is not followed
  // (ELOOP): it could lead to anything.
  virtual FileDescriptor openForWriting(const std::string& path) = 0;
  // Asks the host not to keep the file's pages; they are gone at the latest after flushToMedium.
  virtual bool disableCaching(int descriptor) = 0;
  // Cuts the file behind the descriptor's position.
  virtual bool truncateAtPosition(int descriptor) = 0;
  virtual bool flush(int descriptor) = 0;
  // The strongest flush the host has, through to the medium.
  virtual bool flushToMedium(int descriptor) = 0;
  // Whether `path` leads to the open file. ESTALE when it leads to another one.
  virtual bool leadsToFile(const std::string& path, int descriptor) = 0;
  virtual bool renameAt(int fromDirectory, const std::string& from, int toDirectory,
                        const std::string& to) = 0;
  // Makes a rename inside the directory that holds `path` durable.
  virtual bool flushDirectoryOf(const std::string& path) = 0;
  // Removes a file, errors ignored.
  virtual void remove(const std::string& path) = 0;
};

}  // namespace quillsift
