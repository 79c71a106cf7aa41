#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Mutex.h"
#include "platform/QSError.h"

namespace asio {
class io_context;
}

namespace quillsift {

// The one thread that listens and serves every connection. What runs on it must return at once.
class ServiceThread {
 public:
  ServiceThread();
  ~ServiceThread();
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

  asio::io_context& context() { return *context_; }
  // False and `error` when the system has no thread for us. A second start does nothing.
  bool start(QSError* error);
  // Runs `task` on the thread, never within this call. Any thread. Dropped once stop has begun.
  void post(std::function<void()> task);
  // The same, but nothing is done and false returned before the start and once stop has begun.
  bool postIfRunning(std::function<void()> task);
  // Runs `task` on the thread and returns when it has ended; here, when this is the thread or there
  // is none.
  void runAndWait(const std::function<void()>& task);
  // `task` will be among the last to run, before those that were here earlier: it closes what would
  // keep the thread busy.
  void atStop(std::function<void()> task);
  // Runs the tasks of atStop, lets what they have cancelled come to its end, and joins. Not on the
  // thread itself.
  void stop();

 private:
  struct Work;

  bool postFromInside(std::function<void()>& task);
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

  const std::unique_ptr<asio::io_context> context_;
  std::unique_ptr<Work> work_;  // keeps the thread waiting while there is nothing to do
  Mutex mutex_;
  bool stopped_ QS_GUARDED_BY(mutex_) = false;
  std::vector<std::function<void()>> atStop_ QS_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace quillsift
