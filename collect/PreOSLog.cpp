#include "collect/PreOSLog.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <span>

#include "collect/WorkResult.h"
#include "host/PreOSLogBuffer.h"
#include "platform/QSError.h"

namespace quillsift {

WorkBlock preOSLogWork() {
  return [](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
    std::size_t length = 0;
    std::uint8_t* const block = collect_pre_log_buffer(&length);
    const int code = errno;
    if (block == nullptr) {
      setError(error, QSError::posix(code));
      return false;
    }
    const std::shared_ptr<const void> storage(block, std::free);
    return giveEntry(entry, QSData(storage, std::as_bytes(std::span(block, length))));
  };
}

}  // namespace quillsift
