#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/ProcessLauncher.h"
#include "platform/RecoveryEnvironment.h"

namespace quillsift {

// The boot splash, as its own control program knows it. A machine without one shows none, and a
// control program that does not answer within the limit has nothing to show either.
class LinuxInstallerProgress : public InstallerProgress {
 public:
  // `launcher` outlives this.
  explicit LinuxInstallerProgress(ProcessLauncher& launcher,
                                  std::chrono::milliseconds limit = std::chrono::seconds(2));

  bool isShowing() override;
  // There is but one splash, so the phase makes no difference.
  void hide(const std::string& phase) override;

 private:
  bool succeeds(std::vector<std::string> arguments);

  ProcessLauncher& launcher_;
  const std::chrono::milliseconds limit_;
};

}  // namespace quillsift
