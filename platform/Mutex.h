#pragma once

// The standard mutex under a thin coat of annotations, so that clang's thread-safety analysis
// can check which members are touched under which lock. Other compilers see plain locks.

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define QS_ANNOTATION(x) __attribute__((x))
#else
#define QS_ANNOTATION(x)
#endif

#define QS_CAPABILITY(x) QS_ANNOTATION(capability(x))
#define QS_SCOPED_CAPABILITY QS_ANNOTATION(scoped_lockable)
#define QS_GUARDED_BY(x) QS_ANNOTATION(guarded_by(x))
#define QS_REQUIRES(...) QS_ANNOTATION(requires_capability(__VA_ARGS__))
#define QS_EXCLUDES(...) QS_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QS_ACQUIRE(...) QS_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QS_TRY_ACQUIRE(...) QS_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QS_RELEASE(...) QS_ANNOTATION(release_capability(__VA_ARGS__))
#define QS_NO_ANALYSIS QS_ANNOTATION(no_thread_safety_analysis)

namespace quillsift {

class QS_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() QS_ACQUIRE() { mutex_.lock(); }
  void unlock() QS_RELEASE() { mutex_.unlock(); }
  bool try_lock() QS_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class ConditionVariable;

  std::mutex mutex_;
};

// Waits directly on a held Mutex: condition.wait(mutex). The analysis cannot follow the release
// inside the wait, so write the predicate as a loop around it.
class ConditionVariable {
 public:
  void notify_one() noexcept { condition_.notify_one(); }
  void notify_all() noexcept { condition_.notify_all(); }

  void wait(Mutex& mutex) QS_REQUIRES(mutex) {
    Adopted lock(mutex);
    condition_.wait(lock.native);
  }
  template <typename Clock, typename Duration>
  std::cv_status wait_until(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
      QS_REQUIRES(mutex) {
    Adopted lock(mutex);
    return condition_.wait_until(lock.native, deadline);
  }

 private:
  // The caller's lock, handed back to it in the end.
  struct Adopted {
    explicit Adopted(Mutex& mutex) : native(mutex.mutex_, std::adopt_lock) {}
    ~Adopted() { native.release(); }
    Adopted(const Adopted&) = delete;
    Adopted& operator=(const Adopted&) = delete;

    std::unique_lock<std::mutex> native;
  };

  std::condition_variable condition_;
};

// Holds a lock for a scope. May be unlocked early and locked again inside that scope.
template <typename Lockable>
class QS_SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(Lockable& lockable) QS_ACQUIRE(lockable) : lockable_(lockable) {
    lockable_.lock();
  }
  ~ScopedLock() QS_RELEASE() {
    if (held_) lockable_.unlock();
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  void unlock() QS_RELEASE() {
    held_ = false;
    lockable_.unlock();
  }
  void lock() QS_ACQUIRE() {
    lockable_.lock();
    held_ = true;
  }

 private:
  Lockable& lockable_;
  bool held_ = true;
};

using MutexLock = ScopedLock<Mutex>;

}  // namespace quillsift
