#pragma once

#include <dirent.h>

#include <memory>

namespace quillsift {

struct DirectoryCloser {
  void operator()(DIR* stream) const { ::closedir(stream); }
};

using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

}  // namespace quillsift
