#include "tests/platform/linux/ScratchTree.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/Text.h"

namespace quillsift {

namespace {

[[noreturn]] void giveUp(const std::string& what) {
  std::perror(what.c_str());
  std::abort();
}

}  // namespace

ScratchTree::ScratchTree() {
  // Resolved, so that paths which the kernel tells can be compared with it.
  directory_ = std::filesystem::canonical(std::filesystem::temp_directory_path()) /
               "quillsift-scratch-XXXXXX";
  if (::mkdtemp(directory_.data()) == nullptr) giveUp(directory_);
}

ScratchTree::~ScratchTree() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string ScratchTree::at(std::string_view path) const {
  return joinedPath(directory_, path);
}

std::string ScratchTree::write(std::string_view path, std::string_view content) const {
  const std::string file = at(path);
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  if (!(stream << content << std::flush)) giveUp(file);
  return file;
}

std::string ScratchTree::link(std::string_view path, const std::string& target) const {
  const std::string file = at(path);
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  if (::symlink(target.c_str(), file.c_str()) != 0) giveUp(file);
  return file;
}

std::string ScratchTree::makeDirectory(std::string_view path) const {
  std::string directory = at(path);
  std::filesystem::create_directories(directory);
  return directory;
}

std::shared_ptr<const PlatformTree> ScratchTree::tree() const {
  return std::make_shared<const PlatformTree>(directory_);
}

}  // namespace quillsift
