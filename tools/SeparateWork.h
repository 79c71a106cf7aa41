#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "tools/Descriptor.h"
#include "tools/Output.h"

namespace quillsift::tools {

struct Account {
  uid_t user = 0;
  gid_t group = 0;
};

// Work that may hang, crash or be made to misbehave by what it reads: done in a process of its own,
// with an account's rights where this process may take them on, and with little memory. It ends
// with this object, or with the thread that made it.
class SeparateWork {
 public:
  using Clock = std::chrono::steady_clock;
  // Writes a result; false when there is none.
  using Work = std::function<bool(Output&)>;

  // The longest result; work that writes more fails.
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20;

  // Starts the work. A process that cannot be made is work that fails.
  SeparateWork(Account account, const Work& work);
  ~SeparateWork();
  SeparateWork(const SeparateWork&) = delete;
  SeparateWork& operator=(const SeparateWork&) = delete;

  // Waits for the result. None when the work has failed, or is not done by then.
  std::optional<std::string> result(Clock::time_point end);

 private:
  // Whether it has ended, and well.
  bool isDone(Clock::time_point end);

  const Descriptor written_;  // a file in memory
  pid_t process_ = -1;
};

}  // namespace quillsift::tools
