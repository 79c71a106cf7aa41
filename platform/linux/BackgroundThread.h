#pragma once

#include <functional>

namespace quillsift {

// Runs `body` on a thread of its own that takes no signals and that nobody waits for: what it needs
// belongs to `body`. False when there is no thread to be had.
bool startBackgroundThread(std::function<void()> body);

}  // namespace quillsift
