#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/RecoveryEnvironment.h"

namespace quillsift {

// Says yes to everything until the test sets an error. Set up before use; calls from any thread.
class FakeRecoveryAgent : public RecoveryAgent {
 public:
  std::optional<QSError> approvalError;
  std::optional<QSError> notificationsError;

  std::vector<std::string> calls() const {
    MutexLock lock(mutex_);
    return calls_;
  }

  bool enableAutomaticApproval(QSError* error) override {
    return answer("enableAutomaticApproval", approvalError, error);
  }
  bool enableNotifications(QSError* error) override {
    return answer("enableNotifications", notificationsError, error);
  }

 private:
  bool answer(const char* call, const std::optional<QSError>& failure, QSError* error) {
    MutexLock lock(mutex_);
    calls_.emplace_back(call);
    if (failure) setError(error, *failure);
    return !failure;
  }

  mutable Mutex mutex_;
  std::vector<std::string> calls_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
