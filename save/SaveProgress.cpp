#include "save/SaveProgress.h"

#include <algorithm>

namespace quillsift {

namespace {

constexpr double kDirectoryShare = 0.05;

double fraction(std::size_t index, std::size_t count) {
  return static_cast<double>(static_cast<float>(index) / static_cast<float>(count));
}

}  // namespace

double archiveSaveProgress(std::size_t index, std::size_t count) {
  return std::min(fraction(index, count), 1.0);
}

double directorySaveProgress(std::size_t index, std::size_t count) {
  return std::min(fraction(index, count) + kDirectoryShare, 1.0);
}

}  // namespace quillsift
