#include "platform/linux/ServiceThread.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <pthread.h>

#include <future>
#include <system_error>
#include <utility>

#include "platform/linux/SchedulingClass.h"

namespace quillsift {

struct ServiceThread::Work {
  explicit Work(asio::io_context& context) : guard(context.get_executor()) {}
  asio::executor_work_guard<asio::io_context::executor_type> guard;
};

ServiceThread::ServiceThread()
    : context_(std::make_unique<asio::io_context>(1)), work_(std::make_unique<Work>(*context_)) {}

ServiceThread::~ServiceThread() {
  stop();
}

bool ServiceThread::start(QSError* error) {
  const MutexLock lock(mutex_);
  if (stopped_ || thread_.joinable()) return true;
  try {
    thread_ = std::thread([this] {
      ::pthread_setname_np(::pthread_self(), "service");
      setPromptScheduling(Promptness::service);
      context_->run();
    });
  } catch (const std::system_error& failure) {
    setError(error, QSError::posix(failure.code().value()));
    return false;
  }
  return true;
}

void ServiceThread::post(std::function<void()> task) {
  if (postFromInside(task)) return;
  const MutexLock lock(mutex_);
  if (!stopped_) asio::post(*context_, std::move(task));
}

bool ServiceThread::postIfRunning(std::function<void()> task) {
  if (postFromInside(task)) return true;
  const MutexLock lock(mutex_);
  if (stopped_ || !thread_.joinable()) return false;
  asio::post(*context_, std::move(task));
  return true;
}

// What the thread posts is always run: it does not end before. So it need not wait for those who
// are posting at this moment.
bool ServiceThread::postFromInside(std::function<void()>& task) {
  if (!context_->get_executor().running_in_this_thread()) return false;
  asio::post(*context_, std::move(task));
  return true;
}

void ServiceThread::runAndWait(const std::function<void()>& task) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  {
    const MutexLock lock(mutex_);
    if (!stopped_ && thread_.joinable() && !isCurrent()) {
      asio::post(*context_, [&task, done] {
        task();
        done->set_value();
      });
    } else {
      done = nullptr;
    }
  }
  if (done) {
    finished.wait();
  } else {
    task();
  }
}

void ServiceThread::atStop(std::function<void()> task) {
  const MutexLock lock(mutex_);
  atStop_.push_back(std::move(task));
}

void ServiceThread::stop() {
  {
    const MutexLock lock(mutex_);
    if (std::exchange(stopped_, true)) return;
    for (; !atStop_.empty(); atStop_.pop_back())
      asio::post(*context_, std::move(atStop_.back()));
  }
  work_.reset();
  if (thread_.joinable()) thread_.join();
}

}  // namespace quillsift
