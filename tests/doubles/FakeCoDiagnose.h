#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "codiagnose/CoDiagnose.h"
#include "platform/Mutex.h"
#include "platform/Platform.h"

namespace quillsift {

// A transfer that stalls until the test ends it. Any thread.
class FakeReadHandle : public PipeReadHandle {
 public:
  FakeReadHandle() : arriving_(Platform::current().workQueues->makeGroup()) { arriving_->enter(); }

  void deliver(std::string bytes) { end(QSData(std::move(bytes)), {}); }
  void fail(QSError error) { end(std::nullopt, std::move(error)); }
  // The transfer, if it is still under way, ends with EBADF.
  void close() override {
    {
      MutexLock lock(mutex_);
      closed_ = true;
    }
    fail(QSError::posix(9));
  }

  bool valid() const override {
    MutexLock lock(mutex_);
    return !closed_;
  }
  std::optional<QSData> readToEnd(QSError* error) override {
    arriving_->wait();
    MutexLock lock(mutex_);
    if (!data_) setError(error, error_);
    return data_;
  }

 private:
  void end(std::optional<QSData> data, QSError error) {
    {
      MutexLock lock(mutex_);
      if (ended_) return;
      ended_ = true;
      data_ = std::move(data);
      error_ = std::move(error);
    }
    arriving_->leave();
  }

  const std::shared_ptr<WorkGroup> arriving_;
  mutable Mutex mutex_;
  bool ended_ QS_GUARDED_BY(mutex_) = false;
  bool closed_ QS_GUARDED_BY(mutex_) = false;
  std::optional<QSData> data_ QS_GUARDED_BY(mutex_);
  QSError error_ QS_GUARDED_BY(mutex_);
};

// A companion that does what the test says. The fields before use; the rest on any thread.
class FakeCoDiagnose : public CoDiagnose {
 public:
  std::optional<QSError> startError;
  std::shared_ptr<FakeReadHandle> handle;              // null: none was ever made
  std::function<void(const std::string& event)> note;  // hears "start" and "invalidate"

  void setArchive(std::string name, bool valid) {
    MutexLock lock(mutex_);
    name_ = std::move(name);
    valid_ = valid;
  }

  bool startGatheringReturningError(QSError* error) override {
    if (note) note("start");
    if (startError) setError(error, *startError);
    return !startError;
  }
  void invalidate() override {
    if (note) note("invalidate");
    MutexLock lock(mutex_);
    invalidated_ = true;
    if (handle) handle->close();
  }
  std::string archiveName() override {
    MutexLock lock(mutex_);
    return name_;
  }
  bool archiveValid() override {
    MutexLock lock(mutex_);
    return valid_;
  }
  std::shared_ptr<PipeReadHandle> remoteDiagnosticHandle() override {
    MutexLock lock(mutex_);
    return invalidated_ ? nullptr : handle;
  }

 private:
  Mutex mutex_;
  std::string name_ QS_GUARDED_BY(mutex_) = "corvane_omnitrawl_unknown.tar.gz";
  bool valid_ QS_GUARDED_BY(mutex_) = false;
  bool invalidated_ QS_GUARDED_BY(mutex_) = false;
};

}  // namespace quillsift
