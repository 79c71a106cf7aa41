#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "platform/ProcessLauncher.h"
#include "platform/QSData.h"

namespace quillsift {

// What a child prints, if it exits with 0 within `limit`. A child that takes longer is killed and
// left behind, since one that waits for a dying device cannot even be killed.
std::optional<QSData> outputWithin(const std::shared_ptr<ChildProcess>& child,
                                   std::chrono::nanoseconds limit);

}  // namespace quillsift
