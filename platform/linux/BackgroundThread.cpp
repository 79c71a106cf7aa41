#include "platform/linux/BackgroundThread.h"

#include <csignal>
#include <exception>
#include <thread>
#include <utility>

namespace quillsift {

bool startBackgroundThread(std::function<void()> body) {
  // Blocked here, so that the thread inherits it from its first moment on.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread([body = std::move(body)]() mutable {
      body();
      body = nullptr;
    }).detach();
  } catch (const std::exception&) {  // no thread, or no memory for its start
    started = false;
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace quillsift
