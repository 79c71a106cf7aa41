#pragma once

#include <string>

#include "platform/QSError.h"

namespace quillsift {

// The recovery environment's agent that admits newly attached accessories. Any thread.
class RecoveryAgent {
 public:
  virtual ~RecoveryAgent() = default;

  // False and `error` on failure (ENOSYS where there is no agent).
  virtual bool enableAutomaticApproval(QSError* error) = 0;
  virtual bool enableNotifications(QSError* error) = 0;
};

// The installer's full-screen progress display. Any thread; each call takes 2 seconds at most.
class InstallerProgress {
 public:
  virtual ~InstallerProgress() = default;

  virtual bool isShowing() = 0;
  // Hides it on behalf of a named phase.
  virtual void hide(const std::string& phase) = 0;
};

}  // namespace quillsift
