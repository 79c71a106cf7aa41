#pragma once

#include <cstddef>

namespace quillsift {

// The number of a failed save; the other numbers lie between 0 and 1.
inline constexpr double kSaveFailedProgress = -1.0;

// What a save reports before the job at `index` of `count`, skipped jobs included. The division is
// in single precision and the result widened: clients see exactly these numbers.
double archiveSaveProgress(std::size_t index, std::size_t count);

// The same for a directory, where making the directory counts as the first twentieth.
double directorySaveProgress(std::size_t index, std::size_t count);

}  // namespace quillsift
