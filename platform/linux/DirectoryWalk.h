#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileDescriptor.h"

namespace quillsift {

// Steps along a path by directory descriptors, so that nothing that changes the path meanwhile
// leads a step astray. Descriptors are invalid, with errno set, on failure.

enum class Links { follow, refuse };

// The components of a path without those that lead nowhere (empty ones and ".").
std::vector<std::string> pathComponents(std::string_view path);

// Where a link leads, as it is written there; empty for what is none.
std::string linkTarget(const std::string& path);

// A directory, with `flags` beside what that takes.
FileDescriptor openDirectory(int parent, const std::string& name, int flags);

// The directory `name`, as a place only. Made with mode 0777, whatever the umask, if nothing stands
// there; ENOTDIR if something else does.
FileDescriptor enterOrMake(int parent, const std::string& name, Links links);

// What `path` leads to from `directory` on, never by a link and never out of it: ELOOP, EXDEV.
// With O_CREAT it is made with `mode`. RESOLVE_ flags of the kernel can be added.
FileDescriptor openInside(int directory, const std::string& path, int flags, unsigned mode = 0,
                          std::uint64_t resolveFlags = 0);

// The same, but links are followed as long as they lead neither out nor onto another volume: ELOOP
// for the kernel's own links.
FileDescriptor openLinked(int directory, const std::string& path, int flags);

// What stands at `path`, if no link is met on the way to it or there: ELOOP.
FileDescriptor openWithoutLinks(const std::string& path, int flags);

}  // namespace quillsift
