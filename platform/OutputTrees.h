#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "platform/QSData.h"

namespace quillsift {

// What a file of a saved tree gets beside its bytes.
struct OutputFileAttributes {
  std::uint16_t mode = 0;  // permission, set-id and sticky bits
  std::uint32_t ownerID = 0;
  std::uint32_t groupID = 0;
  std::map<std::string, QSData> extendedAttributes;  // by their whole names, prefix included
};

// The directory that a save fills, held open from its making on. Relative paths have neither ".."
// components nor a leading "/". Nothing that a path meets on its way inside is followed out of the
// directory: a link there fails with ELOOP. Every operation that fails returns false with errno
// set, and blocks as long as the file system does. One thread at a time.
class OutputTree {
 public:
  virtual ~OutputTree() = default;

  // If nothing stands where the parent of `relativePath` belongs, makes that directory and those
  // on the way to it, each with mode 0777 whatever the umask.
  virtual bool makeParentOf(const std::string& relativePath) = 0;
  // Writes a new regular file whole, in the place of one that stands there already: its other names
  // and whoever has it open keep that one as it was. Fails where anything else stands: EISDIR,
  // ELOOP for a link, else EEXIST. The bytes may lie in a mapped file that is cut meanwhile.
  // Attributes that cannot be set are left out without a failure; the file is readable to the owner
  // alone before it has its mode.
  virtual bool writeFile(const std::string& relativePath, std::span<const std::byte> bytes,
                         const OutputFileAttributes& attributes) = 0;
  // Removes the directory with everything in it, also what was there before. Links are removed,
  // never followed: if the directory's own name is a link, that alone goes. Volumes mounted inside
  // are left alone, and so is the root directory of the host. Errors are ignored.
  virtual void removeWithEverything() = 0;
};

// Directories to save into. Paths are the client's: they are never looked up in the platform tree.
// Any thread.
class OutputTrees {
 public:
  virtual ~OutputTrees() = default;

  // Opens the directory at `path`, made with those on the way if it is not there; the ones made get
  // mode 0777 whatever the umask. Links in `path` are followed. Null with errno set on failure,
  // ENOTDIR where something else than a directory stands.
  virtual std::unique_ptr<OutputTree> makeDirectory(const std::string& path) = 0;
};

}  // namespace quillsift
