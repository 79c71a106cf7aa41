#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

namespace quillsift {

// A record of the process table, of which two fields are used.
inline constexpr std::size_t kProcessRecordLength = 648;
inline constexpr std::size_t kProcessRecordIdentifier = 40;  // signed, 32 bits, native
inline constexpr std::size_t kProcessRecordName = 243;       // text with its terminator
inline constexpr std::size_t kProcessNameLength = 17;        // bytes, terminator included

// The running processes, and signals to them. Any thread.
class ProcessTable {
 public:
  virtual ~ProcessTable() = default;

  // The classic system control for the table of all processes, by the name {1, 14, 0, 0}: fills
  // `out` (at most *length bytes, set to what is there; `out` null asks for the length alone, which
  // may be a little more than is needed). 0, or -1 and errno: ENOMEM when the buffer is too small.
  virtual int readAll(void* out, std::size_t* length) = 0;
  // As kill(2).
  virtual int sendSignal(pid_t process, int signal) = 0;
  // Returns when the process has ended, or after `limit`.
  virtual void waitForExit(pid_t process, std::chrono::milliseconds limit) = 0;
};

}  // namespace quillsift
