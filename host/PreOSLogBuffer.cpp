#include "host/PreOSLogBuffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "host/QSLog.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kControl = "kern.preoslog";
// How messages name the function.
constexpr const char* kSignature = "uint8_t * _Nullable collect_pre_log_buffer(size_t * _Nullable)";

// The header: magic, total size and write position, 32 bits each and little-endian, a byte that
// says nothing, and whether the ring has wrapped.
constexpr std::uint32_t kMagic = 0x4C534F50;  // "POSL"
constexpr std::size_t kSizeOffset = 4;
constexpr std::size_t kPositionOffset = 8;
constexpr std::size_t kWrappedOffset = 13;
constexpr std::size_t kHeaderSize = 14;

// A write position is accepted up to the total size, header included, so the bytes up to it may
// reach this far behind the buffer. Zeros stand there.
constexpr std::size_t kSlack = 16;

struct Freer {
  void operator()(std::uint8_t* bytes) const { std::free(bytes); }
};
using Block = std::unique_ptr<std::uint8_t, Freer>;

// What the host gave: `size` bytes, kSlack zeros behind them.
struct Buffer {
  Block bytes;
  std::size_t size = 0;

  std::uint32_t number(std::size_t offset) const {
    const std::uint8_t* const at = bytes.get() + offset;
    return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
           static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
  }
  std::uint32_t writePosition() const { return number(kPositionOffset); }
  bool hasWrapped() const { return bytes.get()[kWrappedOffset] != 0; }
};

// The functions below return 0 or why they failed, as an errno value.

// How much memory to make room for.
int askForSize(std::size_t* size) {
  const std::uint8_t zero = 0;
  *size = 0;
  if (Platform::current().hostInformation->systemControl(kControl, nullptr, size, &zero,
                                                         sizeof zero) != 0) {
    const int code = errno;
    QSLog(kLogError, 1, "%s: Couldn't obtain preoslog buffer size, result %s", kSignature,
          systemErrorText(code).c_str());
    return code;
  }
  if (*size < kHeaderSize) {
    QSLog(kLogError, 1,
          "%s: preoslog buffer size is %zu, which is less than the minimum required size (%zu).",
          kSignature, *size, kHeaderSize);
    return ENOENT;
  }
  return 0;
}

// Makes room for `size` bytes, in the memory of an earlier attempt if there was one.
int grow(Buffer* buffer, std::size_t size) {
  const bool fits = size <= std::numeric_limits<std::size_t>::max() - kSlack;
  void* const grown = fits ? std::realloc(buffer->bytes.get(), size + kSlack) : nullptr;
  if (grown == nullptr) {
    QSLog(kLogError, 1, "%s: Failed to allocate memory for preoslog buffer", kSignature);
    return ENOMEM;
  }
  (void)buffer->bytes.release();
  buffer->bytes.reset(static_cast<std::uint8_t*>(grown));
  buffer->size = size;
  std::memset(grown, 0, kHeaderSize);
  return 0;
}

// Fills the buffer; its size becomes that of what came.
int read(Buffer* buffer) {
  if (Platform::current().hostInformation->systemControl(kControl, buffer->bytes.get(),
                                                         &buffer->size, nullptr, 0) != 0) {
    const int code = errno;
    QSLog(kLogError, 1, "%s: Couldn't obtain preoslog buffer, sysctl failed with result %s",
          kSignature, systemErrorText(code).c_str());
    return code;
  }
  std::memset(buffer->bytes.get() + buffer->size, 0, kSlack);
  return 0;
}

int check(const Buffer& buffer) {
  if (const std::uint32_t magic = buffer.number(0); magic != kMagic) {
    QSLog(kLogError, 1, "%s: Magic for preoslog buffer doesn't match, expected %08X, given %08X",
          kSignature, kMagic, magic);
  } else if (buffer.number(kSizeOffset) != buffer.size) {
    QSLog(kLogError, 1,
          "%s: Buffer size returned by sysctl doesn't match buffer size recorded in the header, "
          "preoslog buffer is corrupted",
          kSignature);
  } else if (buffer.size < kHeaderSize) {
    QSLog(kLogError, 1,
          "%s: The header data does not fit within the sysctl buffer that was returned.",
          kSignature);
  } else if (buffer.writePosition() > buffer.size) {
    QSLog(kLogError, 1,
          "%s: The header offset does not fit within the sysctl buffer that was returned.",
          kSignature);
  } else {
    return 0;
  }
  return EFAULT;
}

// The ring of a sound buffer, oldest byte first.
int putInOrder(const Buffer& buffer, Block* block, std::size_t* length) {
  const std::uint8_t* const ring = buffer.bytes.get() + kHeaderSize;
  const std::size_t ringSize = buffer.size - kHeaderSize;
  const std::uint32_t written = buffer.writePosition() + 1;
  *length = buffer.hasWrapped() ? ringSize : written;
  block->reset(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(*length, 1))));
  if (!*block) return ENOMEM;
  // The position may lie past the end of the ring, and then nothing is older than its start.
  const std::size_t older =
      buffer.hasWrapped() && written < ringSize ? ringSize - written : std::size_t{0};
  if (older > 0) std::memcpy(block->get(), ring + written, older);
  std::memcpy(block->get() + older, ring, *length - older);
  return 0;
}

// Reads until the log fits. What errno has to be afterwards, 0 for nothing: why there is no block,
// or ENOMEM beside a block that took more than one attempt.
int collect(Block* block, std::size_t* length) {
  Buffer buffer;
  int earlier = 0;
  for (;;) {
    std::size_t size = 0;
    if (const int code = askForSize(&size); code != 0) return code;
    if (const int code = grow(&buffer, size); code != 0) return code;
    const int code = read(&buffer);
    if (code == 0) break;
    if (code != ENOMEM) return code;
    earlier = code;  // it grew meanwhile
  }
  if (const int code = check(buffer); code != 0) return code;
  if (const int code = putInOrder(buffer, block, length); code != 0) return code;
  return earlier;
}

}  // namespace

std::uint8_t* collect_pre_log_buffer(std::size_t* length) {
  Block block;
  std::size_t blockLength = 0;
  const int code = collect(&block, &blockLength);
  if (block && length != nullptr) *length = blockLength;
  if (code != 0) errno = code;
  return block.release();
}

}  // namespace quillsift
