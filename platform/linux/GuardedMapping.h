#pragma once

#include <cstddef>
#include <optional>

#include "platform/QSData.h"
#include "platform/linux/LostPageGuard.h"

namespace quillsift {

// A file's bytes where the kernel keeps them, private and read-only, guarded against pages that are
// lost while somebody reads them.
class GuardedMapping {
 public:
  // The first `length` bytes of the file, read ahead in sequence; the descriptor may be closed
  // afterwards. Bytes behind the end of a file that got shorter are zeros. None with errno set:
  // EINVAL for no bytes, ENOMEM when there are as many mappings as may be, others for a file that
  // cannot be mapped. Small files have to leave room for large ones.
  static std::optional<QSData> ofFile(int descriptor, std::size_t length);

  GuardedMapping() = default;  // of nothing
  ~GuardedMapping();
  GuardedMapping(const GuardedMapping&) = delete;
  GuardedMapping& operator=(const GuardedMapping&) = delete;

 private:
  bool map(int descriptor, std::size_t length);

  void* address_ = nullptr;
  std::size_t length_ = 0;
  std::optional<LostPageGuard::Ticket> ticket_;
};

}  // namespace quillsift
