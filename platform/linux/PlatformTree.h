#pragma once

#include <optional>
#include <string>

namespace quillsift {

// The platform tree: a directory laid over the host's root, which holds the programs and files that
// the collection plan names and this host lacks. Every Linux adapter looks its paths up here first;
// nobody else knows of it. Immutable once made; any thread.
//
// What is in the tree wins, its links followed; a dangling or looping link counts as not there, and
// the host's path is used. A link to /dev/null says that this system has no such thing: the host is
// not asked. A directory in the tree hides the host's one as a whole when it is listed.
//
// A link can have others to fall back on: where "boot.log" leads nowhere, "boot.log@2" is tried,
// and so on for as long as there is a next one.
class PlatformTree {
 public:
  // The tree counts only if it belongs to root or to this process's user and nobody else can write
  // to it: the daemon runs what it finds there. A directory that does not exist is no tree.
  explicit PlatformTree(std::string directory);

  // "quillsift/platform" beside the running executable; empty when that cannot be told.
  static std::string directoryBesideExecutable();

  // The tree itself; empty when there is none.
  const std::string& directory() const { return directory_; }
  // Why a directory that exists does not count, for one line in the log; empty if there is nothing
  // to say.
  const std::string& complaint() const { return complaint_; }

  // The path to use in place of `path`. None for what the tree says does not exist here, and for
  // what cannot be a path (an embedded NUL): to the caller both are ENOENT. A path that is relative
  // or has a ".." in it is never looked up in the tree and comes back as it is.
  std::optional<std::string> resolve(const std::string& path) const;
  // The same for something to be created: its parent directory is looked up, not the path itself.
  std::optional<std::string> resolveForCreation(const std::string& path) const;

 private:
  // Where `path` stands in the tree, whether or not it exists.
  std::string placeOf(const std::string& path) const;
  // Whether a link to /dev/null stands at `path` below the tree or at one of its parents.
  bool hides(const std::string& path) const;

  std::string directory_;  // empty: there is no tree
  std::string complaint_;
};

}  // namespace quillsift
