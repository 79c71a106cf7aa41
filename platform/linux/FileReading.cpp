#include "platform/linux/FileReading.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

namespace quillsift {

namespace {

constexpr std::size_t kSmallestBuffer = 4096;
constexpr std::size_t kToleratedSlack = 65536;

struct Freer {
  void operator()(std::byte* bytes) const { std::free(bytes); }
};

// Memory that can be grown without being copied, as vectors cannot.
class GrowingBuffer {
 public:
  [[nodiscard]] bool resize(std::size_t size) {
    auto* const grown = static_cast<std::byte*>(std::realloc(bytes_.get(), size));
    if (grown == nullptr) return false;  // errno is ENOMEM
    (void)bytes_.release();
    bytes_.reset(grown);
    size_ = size;
    return true;
  }
  std::size_t size() const { return size_; }
  std::byte* bytes() { return bytes_.get(); }
  QSData take(std::size_t length) {
    const std::shared_ptr<const std::byte> storage(std::move(bytes_));
    return QSData(storage, {storage.get(), length});
  }

 private:
  std::unique_ptr<std::byte, Freer> bytes_;
  std::size_t size_ = 0;
};

}  // namespace

FileDescriptor openForReading(const std::string& path) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  } while (descriptor < 0 && errno == EINTR);
  return FileDescriptor(descriptor);
}

std::optional<QSData> readToEnd(int descriptor, std::size_t expected, std::size_t most) {
  GrowingBuffer buffer;
  std::size_t length = 0;
  // One byte more than expected, so that the end is seen without growing.
  if (!buffer.resize(std::max(expected + 1, kSmallestBuffer))) return std::nullopt;
  for (;;) {
    if (length > most) {
      errno = EFBIG;
      return std::nullopt;
    }
    if (length == buffer.size() && !buffer.resize(2 * length)) return std::nullopt;
    const ssize_t count = ::read(descriptor, buffer.bytes() + length, buffer.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (buffer.size() - length > kToleratedSlack && !buffer.resize(length + 1)) return std::nullopt;
  return buffer.take(length);
}

std::optional<QSData> readSmallFile(const std::string& path, std::size_t most) {
  const FileDescriptor file = openForReading(path);
  if (!file.valid()) return std::nullopt;
  return readToEnd(file.get(), 0, most);
}

}  // namespace quillsift
